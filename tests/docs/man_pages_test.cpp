// The manual pages against headers, programs and docs/operations.md; that they are shown
// without a warning, found by name, and installed.
#include "tests/docs/source_text.h"
#include "tests/support/man_page.h"
#include "tests/support/markdown.h"
#include "tests/support/program.h"
#include "tests/support/run.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <map>
#include <regex>
#include <set>

namespace fs = std::filesystem;

static const fs::path BUILT = KESTRO_BUILD_DIR "/man";

// The pages of the build folder, "man3/tmf.3", without those that only lead to another one.
static std::vector<std::string> built_pages()
{
    std::vector<std::string> names;
    for (const auto &entry : fs::recursive_directory_iterator(BUILT)) {
        if (entry.is_regular_file() && read_file(entry.path().string()).rfind(".so ", 0) != 0)
            names.push_back(fs::relative(entry.path(), BUILT).string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Runs a program in the folder of the pages, and gives what it says.
static std::string said(const std::vector<std::string> &argv, bool of_output)
{
    run_setup setup;
    setup.directory = BUILT.string();
    setup.env = {{"LC_ALL", "C.UTF-8"}};
    const run_result run = run_program(argv, setup);
    return (run.status != 0 ? "status " + std::to_string(run.status) + "\n" : "") + run.err +
           (of_output ? run.out : "");
}

TEST(ManPages, AreShownWithoutAWarning)
{
    NEED_PROGRAM("man", "man-db");
    const std::vector<std::string> pages = built_pages();
    EXPECT_THAT(pages, testing::IsSupersetOf(
                           {"man1/Kestro.1", "man3/fwutil.3", "man3/tmf.3", "man3/tmf-python.3"}));
    for (const std::string &page : pages)
        EXPECT_EQ(said({"man", "--warnings", "-E", "UTF-8", "-l", page}, false), "") << page;
}

TEST(ManPages, HaveNoWrongMacros)
{
    NEED_PROGRAM("mandoc", "mandoc");
    for (const std::string &page : built_pages()) {
        // What pandoc makes has paragraphs behind headings, which do no harm.
        const std::string least = fs::path(page).extension() == ".5" ? "error" : "warning";
        EXPECT_EQ(said({"mandoc", "-T", "lint", "-W", least, page}, true), "") << page;
    }
}

TEST(ManPages, AWrongOneIsFound)
{
    NEED_PROGRAM("man", "man-db");
    const tempdir dir;
    write_file(dir.file("bad.1"),
               ".Dd November 22, 2026\n.Dt BAD 1\n.Os\n.Sh NAME\n.Nm bad\n.Nd b\n"
               ".Sh DESCRIPTION\n.NoSuchMacro\nA\n\\[nosuchglyph]\n");
    EXPECT_NE(said({"man", "--warnings", "-E", "UTF-8", "-l", dir.file("bad.1")}, false), "");
}

// The names of the section NAME.
static std::set<std::string> names_of(const std::string &page)
{
    std::set<std::string> names;
    std::istringstream in(man_section(page, "NAME"));
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(".Nm ", 0) == 0)
            names.insert(man_words(line).at(1));
    }
    return names;
}

TEST(ManPages, NamesAreFound)
{
    NEED_PROGRAM("lexgrog", "man-db");
    for (const std::string &page : built_pages()) {
        const run_result run = run_program({"lexgrog", (BUILT / page).string()});
        EXPECT_EQ(run.status, 0) << page;
        std::set<std::string> found;
        std::istringstream lines(run.out);
        for (std::string line; std::getline(lines, line);) {
            const size_t begin = line.find('"') + 1;
            found.insert(line.substr(begin, line.find(' ', begin) - begin));
        }
        const std::string file = fs::path(page).stem().string();
        if (fs::exists(KESTRO_SOURCE_DIR "/docs/man/" + fs::path(page).filename().string())) {
            EXPECT_EQ(found, names_of(man_page(fs::path(page).filename().string()))) << page;
        } else {
            EXPECT_EQ(found.count(file), 1U) << page;
        }
    }
}

// Pages that others of the system have.
static const std::set<std::string> of_the_system = {"execve.2", "fork.2",   "lockf.3",
                                                    "udp.7",    "pydoc3.1", "lslocks.8"};

// The pages of formats, which are there when they can be made.
static std::set<std::string> formats()
{
    const std::string list = read_file(KESTRO_SOURCE_DIR "/docs/man/CMakeLists.txt");
    static const std::regex row(R"(\n *man_format\(([a-z.-]+) )");
    std::set<std::string> names;
    for (std::sregex_iterator at(list.begin(), list.end(), row), end; at != end; ++at)
        names.insert(at->str(1) + ".5");
    return names;
}

TEST(ManPages, OfFormatsAreMade)
{
    NEED_PROGRAM("pandoc", "pandoc");
    std::set<std::string> found;
    for (const auto &entry : fs::directory_iterator(BUILT / "man5"))
        found.insert(entry.path().filename().string());
    EXPECT_EQ(found, formats());
    EXPECT_GE(found.size(), 6U);
}

TEST(ManPages, LeadToPagesThatAreThere)
{
    const std::set<std::string> made = formats();
    static const std::regex reference(R"(\n\.Xr (\S+) (\d))");
    std::set<std::string> used;
    for (const auto &entry : fs::directory_iterator(KESTRO_SOURCE_DIR "/docs/man")) {
        const std::string page = read_file(entry.path().string());
        for (std::sregex_iterator at(page.begin(), page.end(), reference), end; at != end; ++at) {
            const std::string name = at->str(1) + "." + at->str(2);
            used.insert(name);
            EXPECT_TRUE(of_the_system.count(name) != 0 || made.count(name) != 0 ||
                        fs::exists(BUILT / ("man" + at->str(2)) / name))
                << entry.path().filename() << ": " << name;
        }
    }
    EXPECT_THAT(used, testing::IsSupersetOf(of_the_system));
}

// ---- section 3

// A declaration with one blank between words and none behind "*", as pages have it.
static std::string normal(const std::string &text)
{
    static const std::regex blanks("\\s+");
    std::string line = std::regex_replace(text, blanks, " ");
    line = std::regex_replace(line, std::regex(" ?\\* "), " *");
    return line;
}

// The declarations of a header that a pattern finds, without comments.
static std::set<std::string> header_prototypes(const std::string &name, const char *pattern)
{
    std::string text = read_file(KESTRO_SOURCE_DIR "/" + name);
    text = std::regex_replace(text, std::regex("//[^\n]*"), "");
    std::set<std::string> found;
    const std::regex declaration(pattern);
    for (std::sregex_iterator at(text.begin(), text.end(), declaration), end; at != end; ++at)
        found.insert(normal(at->str(1)));
    return found;
}

static const struct {
    const char *page, *header, *pattern;
    size_t least;
} libraries[] = {
    {"tmf.3", "msgfile/tmf.h", R"(\nTMF_API ([^;(]*\btmf_\w+\([^)]*\));)", 15},
    {"fwutil.3", "fwutil/fwutil.h",
     R"(\n((?:typedef |FWU_HOOK )?[A-Za-z_0-9 ]+[ *](?:\(\*fwu_callback\)|Fwu_\w+)\([^)]*\));)",
     17},
};

TEST(ManPages, EachCallHasItsPrototype)
{
    for (const auto &row : libraries) {
        const std::set<std::string> declared = header_prototypes(row.header, row.pattern);
        EXPECT_GE(declared.size(), row.least);
        std::set<std::string> shown;
        for (const std::string &one : man_prototypes(man_page(row.page)))
            shown.insert(normal(one));
        EXPECT_EQ(shown, declared) << row.page;
    }
}

// "tmf_fread" of "int tmf_fread(...)".
static std::string call_of(const std::string &prototype)
{
    static const std::regex name(R"(((?:tmf|Fwu)_\w+)\()");
    std::smatch found;
    return std::regex_search(prototype, found, name) ? found.str(1) : "";
}

TEST(ManPages, EachCallHasAPageThatLeadsToItsLibrarys)
{
    std::map<std::string, std::string> wanted, found;
    for (const auto &row : libraries) {
        std::set<std::string> names;
        for (const std::string &one : header_prototypes(row.header, row.pattern)) {
            if (const std::string call = call_of(one); !call.empty())
                names.insert(call);
        }
        EXPECT_EQ(names_of(man_page(row.page)), names);
        for (const std::string &call : names)
            wanted[call + ".3"] = ".so man3/" + std::string(row.page) + "\n";
    }
    for (const auto &entry : fs::directory_iterator(BUILT / "man3")) {
        const std::string text = read_file(entry.path().string());
        if (text.rfind(".so ", 0) == 0)
            found[entry.path().filename().string()] = text;
    }
    EXPECT_EQ(found, wanted);
}

TEST(ManPages, OfACallIsFoundByNameOnceInstalled)
{
    NEED_PROGRAM("man", "man-db");
    const tempdir root;
    const run_result installed =
        run_program({"cmake", "--install", KESTRO_BUILD_DIR "/docs/man", "--prefix", root.path()});
    ASSERT_EQ(installed.status, 0) << installed.err;
    const fs::path tree = fs::path(root.path()) / "share/man";
    ASSERT_TRUE(fs::exists(tree)) << installed.out;
    for (const auto &[words, text] : std::map<std::string, std::string>{
             {"tmf_fread", "tmf_fread(tmf_handle *h, void *buf, int len, int flags)"},
             {"Fwu_hook_keep", "Fwu_hook_keep(const char *mark)"},
             {"Kestro", "capture the changes of a database"}}) {
        run_setup setup;
        setup.env = {{"MANPATH", tree.string()}, {"LC_ALL", "C.UTF-8"}, {"MANWIDTH", "120"}};
        const run_result shown = run_program({"man", words}, setup);
        EXPECT_EQ(shown.status, 0) << shown.err;
        EXPECT_THAT(shown.out, testing::HasSubstr(text));
    }
}

// ---- Kestro

static std::set<std::string> program_options()
{
    const std::string text = read_file(KESTRO_SOURCE_DIR "/driver/options.cpp");
    static const std::regex row(R"(\{\.name = "(-[^"]+)\")");
    std::set<std::string> names;
    for (std::sregex_iterator at(text.begin(), text.end(), row), end; at != end; ++at)
        names.insert(at->str(1));
    return names;
}

TEST(ManPages, KestrosOptionsAreTheProgramsAndNoOthers)
{
    const std::set<std::string> names = program_options();
    EXPECT_GE(names.size(), 29U);
    EXPECT_EQ(man_options(man_page("Kestro.1")), names);
    // And those that its help shows.
    const std::string help = run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-help"}).out;
    static const std::regex line(R"(\n  (-[a-z]+))");
    size_t shown = 0;
    for (std::sregex_iterator at(help.begin(), help.end(), line), end; at != end; ++at, shown++)
        EXPECT_EQ(names.count(at->str(1)), 1U) << at->str(1);
    EXPECT_GE(shown, 19U);
}
