// The layout of capture records as a COBOL copybook in fixed form.
//
// No name can be a reserved word, now or later: those of the header's items begin with "H-", of
// the row's with "R-" and of an update's new row with "N-", records end with "-REC".
#include "tools/fwlog/dump_value.h"
#include "tools/fwlog/layout_text.h"

#include <algorithm>
#include <cctype>
#include <initializer_list>

constexpr size_t LINE_END = 72;       // the last column that a compiler reads
constexpr size_t COBOL_NAME_MAX = 30; // characters of a name
constexpr size_t CLAUSE_AT = 45;      // where pictures begin, when there is room

// Appends a comment in lines of at most LINE_END columns.
static void put_comment(std::string &out, const std::string &text)
{
    constexpr size_t ROOM = LINE_END - 8;
    for (size_t at = 0; at < text.size();) {
        size_t n = std::min(ROOM, text.size() - at);
        const size_t blank = text.rfind(' ', at + n);
        if (at + n < text.size() && blank != text.npos && blank > at)
            n = blank - at;
        out += "      * " + text.substr(at, n) + "\n";
        at += n;
        while (at < text.size() && text[at] == ' ')
            at++;
    }
}

// A text in which nothing can end a comment or is no ASCII.
static std::string safe(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

// Appends an entry: its level and name and, on as many lines as they need, its clauses.
static void put_entry(std::string &out, size_t indent, const char *level, const std::string &name,
                      std::initializer_list<std::string> clauses)
{
    std::string line = std::string(indent, ' ') + level + "  " + name;
    for (const std::string &clause : clauses) {
        if (clause.empty())
            continue;
        if (line.size() + 2 + clause.size() > LINE_END) {
            out += line + "\n";
            line.clear();
        }
        line.append(line.size() + 1 < CLAUSE_AT ? CLAUSE_AT - line.size() : 1, ' ');
        line += clause;
    }
    out += line + ".\n";
}

// A name of letters, digits and hyphens that used has not, and now has.
static std::string make_name(const std::string &front, const std::string &middle,
                             const std::string &end, std::set<std::string> &used)
{
    std::string word;
    for (const char c : middle)
        word += isalnum(static_cast<unsigned char>(c)) != 0 && c > 0
                    ? static_cast<char>(toupper(static_cast<unsigned char>(c)))
                    : '-';
    for (int n = 1;; n++) {
        const std::string number = n == 1 ? "" : "-" + std::to_string(n);
        std::string name =
            word.substr(0, COBOL_NAME_MAX - front.size() - number.size() - end.size());
        const size_t last = name.find_last_not_of('-');
        name.resize(last == name.npos ? 0 : last + 1);
        name = front + (name.empty() ? "ITEM" : name) + number + end;
        if (used.insert(name).second)
            return name;
    }
}

static void put_header(std::string &out, const record_layout &record)
{
    put_entry(out, 11, "05", "CAPTURE-HEADER", {});
    std::set<std::string> used;
    for (const record_header_item &item : record.header) {
        put_entry(out, 15, "10", make_name("H-", item.name, "", used),
                  {(item.digits ? "PIC 9(" : "PIC X(") + std::to_string(item.width) + ")"});
        if (item.name != std::string_view("operation"))
            continue;
        put_entry(out, 19, "88", "H-INSERT", {"VALUE \"IP\""});
        put_entry(out, 19, "88", "H-UPDATE", {"VALUE \"IU\""});
        put_entry(out, 19, "88", "H-DELETE", {"VALUE \"ID\""});
    }
}

static void put_row(std::string &out, const record_layout &record, const char *group,
                    const char *front)
{
    if (record.items.empty())
        return;
    put_entry(out, 11, "05", group, {});
    std::set<std::string> used;
    for (const record_item &item : record.items) {
        const std::string name = make_name(front, item.item->name, "", used);
        if (name != front + item.item->name)
            put_comment(out, name + " is item " + safe(item.item->name));
        put_entry(
            out, 15, "10", name,
            {item.picture.empty() ? "" : "PIC " + item.picture, item.usage,
             item.item->count == 1 ? "" : "OCCURS " + std::to_string(item.item->count) + " TIMES"});
    }
}

static bool has_type(const record_layout &record, std::string_view letters)
{
    return std::any_of(record.items.begin(), record.items.end(), [&](const record_item &item) {
        return letters.find(static_cast<char>(item.item->type)) != letters.npos;
    });
}

static void put_advice(std::string &out, const record_layout &record)
{
    const bool big_endian = record.dataset->big_endian;
    if (record.dataset->encoding == FWU_UTF8 && has_type(record, "XU"))
        put_comment(out, "Texts are in UTF-8: PIC X counts bytes, and a character may have up to "
                         "four.");
    if (record.options.ascii) {
        if (has_type(record, "ER"))
            put_comment(out, "Floating-point numbers are texts for FUNCTION NUMVAL-F.");
        return;
    }
    put_comment(out, std::string("Binary numbers are ") + record.order + "-endian" +
                         (big_endian ? "." : ", which COMP-5 is on such machines."));
    if (big_endian && has_type(record, "ER"))
        put_comment(out, "Floating-point numbers are their bytes, big-endian.");
    if (has_type(record, "Z"))
        put_comment(out, "Zoned numbers have EBCDIC's signs: compile with -fsign=EBCDIC.");
}

void layout_put_copybook(std::string &out, const record_layout &record,
                         std::set<std::string> &names)
{
    const change_dataset &dataset = *record.dataset;
    put_comment(out,
                "Capture records of " + safe(record.name) +
                    (dataset.table.empty() ? "" : ", table " + safe(dataset.table)) +
                    ", as Kestro writes them with " +
                    (record.options_text.empty() ? "no format option" : safe(record.options_text)) +
                    "; layout of " + fwu_position_text(dataset.begun) + ".");
    put_comment(out, "IP and ID: " + std::to_string(record.one_length) +
                         " bytes, CAPTURE-ROW is the new row of IP, the old row of ID.");
    put_comment(out, "IU: " + std::to_string(record.two_length) +
                         " bytes, CAPTURE-ROW is the old row, CAPTURE-NEW-ROW the new one.");
    put_advice(out, record);
    put_entry(out, 7, "01",
              make_name("", dataset.layout.dbname + "-" + dataset.layout.dsetname, "-REC", names),
              {});
    put_header(out, record);
    put_row(out, record, "CAPTURE-ROW", "R-");
    put_row(out, record, "CAPTURE-NEW-ROW", "N-");
}
