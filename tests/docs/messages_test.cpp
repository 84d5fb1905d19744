// The tables of messages in docs/ against the sources: what a page tells people to look for is
// what the programs say.
#include "tests/docs/source_text.h"
#include "tests/support/markdown.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <regex>
#include <set>

static const struct {
    const char *page;
    std::vector<std::string> folders; // of the programs that say it
    size_t least;                     // fixed parts: fewer were not read
} pages[] = {
    {"docs/operations.md", {"driver", "capture", "ascii"}, 40},
    {"docs/fwlog.md", {"tools/fwlog", "changes", "feed", "util", "fwutil"}, 60},
    {"docs/postgresql.md", {"feed", "util", "fwutil"}, 30},
    {"docs/tmf-tool.md", {"tools/tmf", "util", "msgfile"}, 12},
    {"docs/capread.md", {"tools/capread", "records", "changes", "util", "msgfile"}, 18},
    {"docs/forward-log.md", {"fwutil", "feed"}, 12},
};

// What the server says and no source.
static const std::set<std::string> servers = {
    "logical decoding requires wal_level >= logical",
    "permission denied",
    "must be superuser",
    "can no longer get changes from replication slot",
    "all replication slots are in use",
    "is active for PID",
    "query would be affected by row-level security policy",
};

// Parts that are put together when they are said, and the pieces in the sources.
static const struct {
    std::string part;
    std::vector<const char *> pieces;
} joined[] = {
    {"is longer than the 16 characters of a name",
     {"\" is longer than the \"", "\" characters of a name"}},
    {"has no item in dataset", {"\" has no item\"", "\" in dataset \""}},
    {"and is left out of the log", {"\" and \"", "\"is\"", "\" left out of the log\""}},
    {"has the character U+20AC, which has no place in ISO 8859-1",
     {"\" has \"", "\"the character \"", "\"U+%04X\"", "\", which has no place in ISO 8859-1"}},
    {"has a JSON object as its value", {"\" has a JSON \"", "object", "\" as its value"}},
    {"has a JSON array as its value", {"\" has a JSON \"", "array", "\" as its value"}},
    {"the line is longer than 256 MiB", {": the line is longer than %zu MiB"}},
    {"/writer.lock: another writer, process", {"\"/writer.lock\"", "%s: another writer, process"}},
    {"/names: cannot read the names of datasets and items",
     {"\"/names\"", "%s: cannot read the names of datasets and items"}},
    {"/names: damaged: it says which dataset each table has",
     {"\"/names\"", "%s: damaged: it says which dataset each table has"}},
    {"/readers: damaged: it says which readers need the log",
     {"FWU_READERS_NAME[] = \"readers\"", "%s: damaged: it says which readers need the log"}},
    {"/readers: cannot write the register of readers",
     {"FWU_READERS_NAME[] = \"readers\"", "\"cannot write the register of readers\""}},
    {"/readers.lock: cannot open the lock file of the register of readers",
     {"FWU_READERS_NAME + \".lock\"", "\"cannot open the lock file of the register of readers\""}},
    {"CAPERR: Success", {"CAPERR: %s"}},
    {"/acknowledged: damaged", {"\"acknowledged\"", "\"damaged: it says"}},
    {"/acknowledged: cannot create the file of what was acknowledged",
     {"\"acknowledged\"", "\"cannot create the file of what was acknowledged\""}},
    {"the line does not end where one of",
     {"\"the line does not end where \"", "\"one of \" + rec_record_name"}},
    {"is not a packed decimal number of -bwfmt",
     {"\" is not \"", "\"a packed decimal number\"", "\" of -bwfmt\""}},
    {"does not tell little-endian floating-point numbers",
     {"does not tell \"", "\"big\" : \"little\"", "\"-endian floating-point numbers"}},
    {"its position on disk", {": its %s ", "\"position on disk\""}},
    {"did not exist when what comes next was changed",
     {"\"\\\" did not exist\"", "\" when what comes next was changed\""}},
    {"the server does not tell which tables",
     {"warning: the server does not tell %s: ", "\"which tables "}},
    {"cannot create a spill file for a large transaction",
     {": cannot create a spill file for %s", "\"a large transaction\""}},
    {"/readers.lock: another process has held the lock for a minute",
     {"FWU_READERS_NAME", ".lock: another process has held the lock for a minute"}},
    {"/readers.lock: another process",
     {"FWU_READERS_NAME + \".lock\"", "%s: another process%s%s holds the lock"}},
    {"/aside: damaged", {"\"/aside\"", "%s: damaged: it says which tables are set aside"}},
    {"is set aside from transaction", {"table %s is set aside from %s on", "\"transaction \""}},
    {"in a transaction that it has not begun to send, and that commits at",
     {" in a transaction that it has not begun to send", "\", and that commits at \""}},
    {"waits until others have ended their transactions: process",
     {"waits until others have ended their transactions: ", "'process '"}},
};

// The fixed parts of a message: what stands between names in capitals, numbers, quotes and
// "...", without punctuation at the ends, which may follow from what is put in.
static std::vector<std::string> fixed_parts(const std::string &message)
{
    static const std::regex open(
        R"(\.\.\.|#?\b(OTHER|NAME|FILE|DIR|STATUS|[ABCDIMNPTXYn0])(\.[a-z]+)*\b|['"])");
    static const char PUNCTUATION[] = " ;,:.()";
    std::vector<std::string> parts;
    std::sregex_token_iterator at(message.begin(), message.end(), open, -1);
    for (const std::sregex_token_iterator end; at != end; ++at) {
        const std::string part = *at;
        const size_t first = part.find_first_not_of(PUNCTUATION);
        if (first != std::string::npos)
            parts.push_back(part.substr(first, part.find_last_not_of(PUNCTUATION) + 1 - first));
    }
    return parts;
}

static std::vector<std::string> parts_of(const char *page)
{
    std::vector<std::string> parts;
    for (const md_table &table : md_find_tables(md_page(page), "message")) {
        for (const auto &row : table.rows) {
            for (const std::string &message : md_code(row[0])) {
                const std::vector<std::string> more = fixed_parts(message);
                parts.insert(parts.end(), more.begin(), more.end());
            }
        }
    }
    return parts;
}

// Whether a part stands in the sources, in one piece or in those it is put together from.
static bool is_said(const std::string &text, const std::string &part)
{
    const auto in_text = [&](const std::string &piece) { return text.find(piece) != text.npos; };
    return in_text(part) || std::any_of(std::begin(joined), std::end(joined), [&](const auto &row) {
               return row.part == part &&
                      std::all_of(row.pieces.begin(), row.pieces.end(), in_text);
           });
}

TEST(Messages, EachStandsInTheSources)
{
    for (const auto &row : pages) {
        // Texts may be cut into several literals.
        const std::string text =
            std::regex_replace(source_text(row.folders), std::regex("\"\n *\""), "");
        const std::vector<std::string> parts = parts_of(row.page);
        EXPECT_GE(parts.size(), row.least) << row.page;
        for (const std::string &part : parts)
            EXPECT_TRUE(servers.count(part) != 0 || is_said(text, part))
                << row.page << ": \"" << part << '"';
        EXPECT_FALSE(is_said(text, "has no such words at all"));
    }
}

TEST(Messages, WhatIsNotLookedForStandsInAPage)
{
    std::set<std::string> found;
    for (const auto &row : pages) {
        for (const std::string &part : parts_of(row.page))
            found.insert(part);
    }
    for (const std::string &part : servers)
        EXPECT_EQ(found.count(part), 1U) << part;
    for (const auto &row : joined)
        EXPECT_EQ(found.count(row.part), 1U) << row.part;
}
