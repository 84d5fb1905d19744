// The codes that each call can give: what the header, the manual page and the page of
// the format say is what can be made to come, no more and no less.
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/provoked_codes.h"
#include "tests/support/markdown.h"

#include <regex>

using code_names = std::set<std::string>;
using contract = std::map<std::string, code_names>;

static const std::regex code_name("TMF_E[A-Z_0-9]+");
// Stands for "1" beside the names.
static const std::string one = "1";

static code_names names_in(const std::string &text)
{
    code_names names;
    for (std::sregex_iterator at(text.begin(), text.end(), code_name), end; at != end; ++at)
        names.insert(at->str());
    return names;
}

static void add(code_names &names, const code_names &more)
{
    names.insert(more.begin(), more.end());
}

static std::string between(const std::string &text, const std::string &from, const std::string &to)
{
    const size_t at = text.find(from);
    if (at == std::string::npos)
        throw std::runtime_error("no \"" + from + "\"");
    return text.substr(at, text.find(to, at) - at);
}

static std::string header()
{
    return read_file(KESTRO_SOURCE_DIR "/msgfile/tmf.h");
}

struct code_row {
    int code;
    std::string name;
    std::string meaning;
};

// The header's list of codes.
static std::vector<code_row> code_rows()
{
    static const std::regex row(R"((TMF_E[A-Z_0-9]+) = (-\d+),? +/\* (.*) \*/)");
    const std::string text = header();
    std::vector<code_row> rows;
    for (std::sregex_iterator at(text.begin(), text.end(), row), end; at != end; ++at)
        rows.push_back({std::stoi((*at)[2]), (*at)[1], (*at)[3]});
    return rows;
}

static std::string name_of(int code)
{
    static const std::vector<code_row> rows = code_rows();
    for (const code_row &row : rows)
        if (row.code == code)
            return row.name;
    return std::to_string(code);
}

// What can come.
static const contract &provoked()
{
    static const contract all = [] {
        const tempdir dir;
        contract found;
        for (const auto &[call, codes] : provoked_codes(dir.file("queue")))
            for (const int code : codes)
                found[call].insert(name_of(code));
        return found;
    }();
    return all;
}

static void expect_same(const contract &said, const char *where)
{
    for (const auto &[call, names] : provoked()) {
        ASSERT_TRUE(said.contains(call)) << call << " in " << where;
        EXPECT_EQ(said.at(call), names) << call << " in " << where;
    }
    EXPECT_EQ(said.size(), provoked().size()) << where;
}

// The codes behind "Codes:" in the comment above each prototype.
static contract of_header()
{
    const std::string text = header();
    const code_names bracket = names_in(between(text, " * Codes  ", " * Bad files"));
    static const std::regex call(R"(/\*((?:[^*]|\*(?!/))*)\*/\nTMF_API [a-z_ ]+\*?(tmf_\w+)\()");
    contract said;
    for (std::sregex_iterator at(text.begin(), text.end(), call), end; at != end; ++at) {
        const std::string comment = (*at)[1];
        const std::string name = (*at)[2];
        if (comment.find(" * Codes: ") == std::string::npos)
            continue;
        const std::string list = comment.substr(comment.find(" * Codes: "));
        code_names &names = said[name] = names_in(list);
        if (std::regex_search(list, std::regex("those\\s+(\\* )?of\\s+(\\* )?the bracket")))
            add(names, bracket);
        if (list.find("those of tmf_check") != std::string::npos)
            add(names, said.at("tmf_check"));
        for (const char *other : {"tmf_fwrite", "tmf_fread"})
            if (list.find(std::string("those of ") + other + " (") != std::string::npos)
                add(names, said.at(other));
        if (list.find("those of tmf_fread but these two") != std::string::npos) {
            add(names, said.at("tmf_fread"));
            names.erase("TMF_ETIMEOUT");
            names.erase("TMF_ESIGNAL");
        }
        if (list.find("and 1 (") != std::string::npos)
            names.insert(one);
    }
    return said;
}

TEST(TmfContract, HeaderNamesTheCodesThatCanCome)
{
    expect_same(of_header(), "tmf.h");
}

TEST(TmfContract, HeaderMarksTheCodesThatNoCallGives)
{
    code_names given;
    for (const auto &[call, names] : provoked())
        add(given, names);
    const std::vector<code_row> rows = code_rows();
    EXPECT_EQ(rows.size(), 82U);
    for (const code_row &row : rows) {
        const bool not_given =
            row.meaning.starts_with("reserved") || row.meaning.starts_with("not given");
        EXPECT_NE(given.contains(row.name), not_given) << row.name;
    }
}

static std::string manual()
{
    return read_file(KESTRO_SOURCE_DIR "/docs/man/tmf.3");
}

TEST(TmfContract, ManualPageNamesTheCodesThatCanCome)
{
    const std::string list = between(manual(), ".Ss Call by call", ".Sh ");
    const size_t calls = list.find(".Bl ");
    const code_names bracket = names_in(list.substr(0, calls));
    contract said;
    static const std::regex item(R"(\.It Fn (tmf_\w+)\n((?:(?!\.It |\.El)[^\n]*\n)*))");
    const std::string items = list.substr(calls);
    for (std::sregex_iterator at(items.begin(), items.end(), item), end; at != end; ++at) {
        const std::string text = (*at)[2];
        code_names &names = said[(*at)[1]] = names_in(text);
        if (text.starts_with("Those"))
            add(names, bracket);
        if (text.find("\nand 1\n") != std::string::npos)
            names.insert(one);
    }
    expect_same(said, "tmf.3");
}

TEST(TmfContract, ManualPageTellsEachCodeOnceWithItsNumber)
{
    const std::string text = between(manual(), ".Sh ERRORS", ".Ss Call by call");
    static const std::regex item(R"(\.It Dv (TMF_E[A-Z_0-9]+) Pq \\-(\d+))");
    code_names told = {one};
    for (std::sregex_iterator at(text.begin(), text.end(), item), end; at != end; ++at) {
        EXPECT_EQ(name_of(-std::stoi((*at)[2])), (*at)[1]);
        EXPECT_TRUE(told.insert((*at)[1]).second) << (*at)[1];
    }
    code_names given;
    for (const auto &[call, names] : provoked())
        add(given, names);
    EXPECT_EQ(told, given);
}

// The page has a row for each code, with the calls that give it in a column.
TEST(TmfContract, PageNamesTheCodesThatCanCome)
{
    const std::map<std::string, code_names> calls = {
        {"open", {"tmf_fopen"}},
        {"close", {"tmf_fclose"}},
        {"write", {"tmf_fwrite", "tmf_fwrite_many"}},
        {"read", {"tmf_fread", "tmf_freadx", "tmf_fread_many"}},
        {"remove", {"tmf_fremove"}},
        {"info", {"tmf_getinfo"}},
        {"check", {"tmf_check"}},
        {"repair", {"tmf_repair"}},
        {"every",
         {"tmf_fclose", "tmf_fwrite", "tmf_fwrite_many", "tmf_fread", "tmf_freadx",
          "tmf_fread_many", "tmf_fremove", "tmf_getinfo"}}};
    const md_table table =
        md_find_table(md_section(md_page("docs/message-file.md"), "Errors"), "code");
    ASSERT_EQ(table.heads.at(2), "calls");
    contract said;
    for (const auto &row : table.rows) {
        std::istringstream codes(row.at(0));
        for (std::string code; std::getline(codes, code, ',');) {
            std::istringstream words(row.at(2));
            for (std::string word; words >> word;) {
                ASSERT_TRUE(calls.contains(word)) << row.at(0) << ": " << word;
                for (const std::string &call : calls.at(word))
                    said[call].insert(name_of(std::stoi(code)));
            }
        }
    }
    said["tmf_freadx"].erase("TMF_ETIMEOUT");
    said["tmf_freadx"].erase("TMF_ESIGNAL");
    expect_same(said, "message-file.md");
}
