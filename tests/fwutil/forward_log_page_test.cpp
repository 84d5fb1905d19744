// docs/forward-log.md against the code: its example, its tables of offsets and kinds, the
// statements of the configuration, and the lines of a status file.
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_readers.h"
#include "fwutil/fwu_start.h"
#include "fwutil/fwu_status_text.h"

#include "tests/support/golden.h"
#include "tests/support/markdown.h"
#include "tests/support/tempdir.h"

#include <cstring>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>

static const std::string &page()
{
    static const std::string text = md_page("docs/forward-log.md");
    return text;
}

// Lines without their comments, so that a block may say less than the file does.
static std::string only_bytes(const std::string &text)
{
    std::istringstream in(text);
    std::string out;
    for (std::string word, line; std::getline(in, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        while (words >> word)
            out += word + " ";
    }
    return out;
}

TEST(ForwardLogPage, ExampleIsTheGoldenFile)
{
    const std::string block = md_find_block(page(), "# file header, 64 bytes");
    EXPECT_EQ(only_bytes(block), only_bytes(golden("forward_log_salted.hex")));
    EXPECT_NE(golden("forward_log_salted.hex").find(block), std::string::npos)
        << "the comments differ";
}

TEST(ForwardLogPage, ExampleOfTheOptionalEntriesIsOfTheGoldenFile)
{
    const std::string text = golden("forward_log_source.hex");
    for (const char *entry : {"# source entry", "# mark entry"})
        EXPECT_NE(text.find(md_find_block(page(), entry)), std::string::npos) << entry;
    EXPECT_NE(golden("forward_log_values.hex").find(md_find_block(page(), "# value entry")),
              std::string::npos);
}

TEST(ForwardLogPage, CharactersOfTheNullMapAreThoseOfTheCode)
{
    std::string flags;
    for (const auto &row : md_find_table(page(), "character").rows)
        flags += md_code(row.at(0)).at(0);
    EXPECT_EQ(flags, (std::string{FWU_FLAG_VALUE, FWU_FLAG_NULL, FWU_FLAG_CUT, FWU_FLAG_REPLACED,
                                  FWU_FLAG_UNKNOWN, FWU_FLAG_BLANK}));
    EXPECT_EQ(flags, ".NCR?!");
}

struct field_row {
    size_t at, width;
    std::string what;
};

// The table of offsets in a section: each row begins where the one before ends.
static std::vector<field_row> fields_of(const std::string &heading, size_t which)
{
    std::string text = md_section(page(), heading);
    for (; which > 0; which--)
        text = text.substr(text.find("| at |") + 1);
    std::vector<field_row> rows;
    for (const auto &cells : md_find_table(text, "at").rows) {
        const std::string &type = cells.at(1);
        const size_t width = type == "u8"                     ? 1
                             : type == "u16"                  ? 2
                             : type == "u32" || type == "i32" ? 4
                             : type == "i64"                  ? 8
                                             : static_cast<size_t>(atoi(type.c_str()));
        rows.push_back({static_cast<size_t>(atoi(cells.at(0).c_str())), width, cells.at(2)});
    }
    return rows;
}

static void expect_no_holes(const std::vector<field_row> &rows, size_t size)
{
    size_t at = 0;
    for (const field_row &row : rows) {
        EXPECT_EQ(row.at, at) << row.what;
        at = row.at + row.width;
    }
    EXPECT_EQ(at, size);
}

static const field_row &field(const std::vector<field_row> &rows, const std::string &what)
{
    for (const field_row &row : rows)
        if (row.what.find(what) != std::string::npos)
            return row;
    throw std::runtime_error("the page has no field " + what);
}

static uint64_t number_at(const unsigned char *bytes, const field_row &row)
{
    uint64_t value = 0;
    for (size_t i = row.width; i > 0; i--)
        value = value << 8 | bytes[row.at + i - 1];
    return value;
}

TEST(ForwardLogPage, FileHeaderFieldsStandWhereTheTableSays)
{
    fwu_file_header header = {.version = FWU_VERSION_SALTED,
                              .big_endian = true,
                              .encoding = FWU_UTF8,
                              .generation = 0x11121314,
                              .sequence = 0x21222324,
                              .created_us = 0x3132333435363738};
    memset(header.identity.bytes, 0x41, sizeof header.identity.bytes);
    header.salt.fill(0x51);
    unsigned char bytes[FWU_FILE_HEADER_SIZE];
    fwu_file_header_put(bytes, header);
    const std::vector<field_row> rows = fields_of("A file", 0);
    expect_no_holes(rows, FWU_FILE_HEADER_SIZE);
    EXPECT_EQ(number_at(bytes, field(rows, "format version, 2")), 2U);
    EXPECT_EQ(number_at(bytes, field(rows, "header length, 64")), 64U);
    EXPECT_EQ(bytes[field(rows, "byte order").at], 'B');
    EXPECT_EQ(bytes[field(rows, "encoding").at], 'U');
    EXPECT_EQ(number_at(bytes, field(rows, "generation")), 0x11121314U);
    EXPECT_EQ(number_at(bytes, field(rows, "sequence")), 0x21222324U);
    EXPECT_EQ(number_at(bytes, field(rows, "creation time")), 0x3132333435363738U);
    const field_row &identity = field(rows, "identity of the log");
    EXPECT_EQ(std::string(bytes + identity.at, bytes + identity.at + identity.width),
              std::string(16, '\x41'));
    EXPECT_EQ(number_at(bytes, field(rows, "salt")), 0x5151515151515151U);
    EXPECT_EQ(field(rows, "CRC of bytes 0 to 59").at, 60U);
    for (const field_row &row : rows)
        if (row.what == "zero") {
            EXPECT_EQ(number_at(bytes, row), 0U) << row.at;
        }
}

TEST(ForwardLogPage, EntryHeaderFieldsStandWhereTheTableSays)
{
    std::vector<unsigned char> bytes;
    fwu_entry_put_layout(bytes, 0x01020304, {.dbname = "DB", .dsetname = "SET", .items = {}});
    std::vector<field_row> rows = fields_of("A file", 1);
    ASSERT_EQ(rows.back().what, "payload");
    rows.pop_back();
    expect_no_holes(rows, FWU_ENTRY_HEADER_SIZE);
    EXPECT_EQ(number_at(bytes.data(), field(rows, "length of header and payload")),
              FWU_ENTRY_HEADER_SIZE + 8 + sizeof "DB" + sizeof "SET");
    EXPECT_NE(field(rows, "length of header").what.find(std::to_string(FWU_ENTRY_MAX)),
              std::string::npos);
    EXPECT_EQ(number_at(bytes.data(), field(rows, "kind")), FWU_KIND_LAYOUT);
    EXPECT_EQ(number_at(bytes.data(), field(rows, "tag")), 0x01020304U);
    EXPECT_EQ(field(rows, "CRC of bytes 0 to 11").at, FWU_ENTRY_CRC_AT);
    EXPECT_EQ(field(rows, "CRC of the payload").at, FWU_ENTRY_CRC_AT + 4);
}

TEST(ForwardLogPage, KindsAreThoseOfTheCode)
{
    const auto rows = md_find_table(md_section(page(), "Entries"), "kind").rows;
    const std::vector<std::vector<std::string>> expected = {
        {std::to_string(FWU_KIND_LAYOUT), "layout: items of a dataset"},
        {std::to_string(FWU_KIND_SESSION), "session: who makes the changes"},
        {std::to_string(FWU_KIND_INSERT) + ", " + std::to_string(FWU_KIND_UPDATE) + ", " +
             std::to_string(FWU_KIND_DELETE),
         "insert, update, delete"},
        {std::to_string(FWU_KIND_COMMIT), "commit"},
        {std::to_string(FWU_KIND_SOURCE),
         "source: where the records of a dataset come from; optional"},
        {std::to_string(FWU_KIND_MARK),
         "mark: a table was emptied, or changes are missing; optional"},
        {std::to_string(FWU_KIND_VALUE),
         "value: what an item of the next record does not hold; optional"}};
    EXPECT_EQ(rows, expected);
    EXPECT_NE(page().find("**Commit** (always " + std::to_string(FWU_COMMIT_SIZE) + " bytes"),
              std::string::npos);
}

TEST(ForwardLogPage, SizesOfItemTypesAreThoseOfTheCode)
{
    const auto rows = md_find_table(page(), "statement").rows;
    std::string said;
    size_t types = 0;
    for (const auto &row : rows)
        if (row.at(0) == "types")
            said = row.at(1) + ";";
    std::istringstream in(said);
    for (std::string group; std::getline(in, group, ';');) {
        const size_t colon = group.find(": ");
        ASSERT_NE(colon, group.npos) << group;
        for (const char letter : group.substr(0, colon)) {
            if (letter == ' ')
                continue;
            const fwu_item_type *type = fwu_item_type_of(letter);
            ASSERT_NE(type, nullptr) << letter;
            EXPECT_EQ(type->sizes, group.substr(colon + 2, group.find(" bytes") - colon - 2))
                << letter;
            types++;
        }
    }
    EXPECT_EQ(types, 9U);
}

TEST(ForwardLogPage, ExampleOfAConfigurationIsRead)
{
    const std::string block = md_find_block(page(), "log-directory");
    const tempdir dir;
    write_file(dir.file("fwutil.cfg"), block);
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    EXPECT_EQ(config.log_directory, dir.file("log"));
    ASSERT_EQ(config.datasets.size(), 2U);
    EXPECT_EQ(config.datasets[1].layout.items.size(), 4U);
    ASSERT_EQ(config.columns.size(), 3U);
    EXPECT_EQ(config.columns[0].table, "sales.\"Order Lines\"");
    EXPECT_EQ(config.columns[0].column, "price \"net\"");
    EXPECT_EQ(config.columns[0].policy, FWU_POLICY_ERROR);
    EXPECT_TRUE(config.columns[2].key);
    EXPECT_EQ(config.encoding, FWU_UTF8);
    EXPECT_EQ(config.policy, FWU_POLICY_MARK);
    EXPECT_EQ(config.table_rules.size(), 1U);
    EXPECT_EQ(config.default_widths.size(), 2U);
    ASSERT_FALSE(config.datasets.empty());
    EXPECT_EQ(config.datasets.back().key, std::vector<int>{0});
    EXPECT_EQ(config.skip_tables.size(), 1U);
    for (const char *statement :
         {"log-file-size", "byte-order", "log-mode", "log-keep", "sync", "database", "item"})
        EXPECT_NE(block.find(std::string("\n") + statement + " "), std::string::npos) << statement;
}

TEST(ForwardLogPage, ExampleOfTheRegisterOfReadersIsOne)
{
    const tempdir dir;
    const std::string example = md_find_block(page(), "fwutil readers 1");
    const std::vector<std::string> listed = {"/var/lib/orders/audit.status",
                                             "/var/lib/orders/orders.status"};
    std::vector<std::string> paths;
    write_file(dir.file("readers"), example);
    ASSERT_EQ(fwu_readers_read(dir.path(), paths), FWU_FOUND);
    EXPECT_EQ(paths, listed);
    ASSERT_EQ(fwu_readers_write(dir.path(), listed), 0);
    EXPECT_EQ(read_file(dir.file("readers")), example);
}

TEST(ForwardLogPage, ExampleOfTheFileOfNamesIsTheOneThatIsTested)
{
    EXPECT_EQ(md_find_block(page(), "fwlog names 1"),
              read_file(KESTRO_SOURCE_DIR "/tests/golden/names.txt"));
}

TEST(ForwardLogPage, SettingsOfSyncAreThoseOfTheCode)
{
    const tempdir dir;
    const auto read_with = [&](const std::string &sync) {
        write_file(dir.file("fwutil.cfg"), "log-directory log\nsync " + sync + "\n");
        fwu_config config;
        return fwu_config_read(config, dir.file("fwutil.cfg").c_str());
    };
    const auto rows = md_find_table(page(), "setting").rows;
    EXPECT_EQ(rows.size(), 3U);
    for (const auto &row : rows) {
        const std::string setting = md_code(row.at(0)).at(0);
        EXPECT_EQ(read_with(std::regex_replace(setting, std::regex("\\bN\\b"), "250")), 0)
            << setting;
    }
}

TEST(ForwardLogPage, StartPositionsAreRead)
{
    size_t given = 0;
    for (const auto &row : md_find_table(page(), "`-start`").rows) {
        for (const std::string &text : md_code(row.at(0))) {
            fwu_position position;
            EXPECT_EQ(fwu_start_parse(text.c_str(), position), 0) << text;
            given++;
        }
    }
    EXPECT_EQ(given, 2U);
}

TEST(ForwardLogPage, LinesOfAStatusFileStandWhereTheTableSays)
{
    const std::string block = md_find_block(page(), "fwutil status 2");
    std::istringstream in(block);
    std::vector<size_t> at;
    std::vector<std::string> lines;
    size_t offset = 0;
    for (std::string line; std::getline(in, line); offset += line.size() + 1) {
        at.push_back(offset);
        lines.push_back(line);
    }
    ASSERT_EQ(lines.size(), 11U);
    const size_t prefix = fwu_status_prefix("/var/log/sales").size();
    EXPECT_EQ(block.substr(0, prefix), fwu_status_prefix("/var/log/sales"));
    EXPECT_EQ(at[2], prefix + fwu_status_live_at(0));
    EXPECT_EQ(at[3], prefix + fwu_status_live_at(1));
    EXPECT_EQ(at[4], prefix + fwu_status_pointer_at(0));
    EXPECT_EQ(at[5], prefix + fwu_status_pointer_at(1));
    EXPECT_EQ(at[6], prefix + FWU_STATUS_LINES_SIZE);
    const auto rows = md_find_table(md_section(page(), "Status file"), "line").rows;
    ASSERT_EQ(rows.size(), 6U);
    EXPECT_EQ(rows[4].at(0), "7, 8");
    EXPECT_NE(rows[4].at(1).find("from offset " + std::to_string(at[6])), std::string::npos);
    EXPECT_EQ(rows[5].at(0), "9 to 11");
    EXPECT_NE(rows[5].at(1).find("from offset " + std::to_string(at[8])), std::string::npos);
}
