// What capture files show of texts in UTF-8: the table of docs/capture-record.md against the
// program.
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"
#include "tests/support/markdown.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>
#include <sstream>

constexpr size_t WIDTH = 10;
constexpr size_t HEADER = 62;

// Cut between characters and filled up, as a writer of images does it.
static std::string item_of(std::string text)
{
    while (text.size() > WIDTH) {
        while ((static_cast<unsigned char>(text.back()) & 0xc0) == 0x80)
            text.pop_back();
        text.pop_back();
    }
    return text + std::string(WIDTH - text.size(), ' ');
}

// Appends a transaction of one insert for each row of the table.
static void write_log(const tempdir &dir, const md_table &table)
{
    write_file(dir.file("fwutil.cfg"), "log-directory log\n");
    fwu_config config;
    ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
    config.new_log_encoding = FWU_UTF8;
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_writer_open(&writer, config), 0);
    const fwu_layout layout = {"SHOP", "CITIES", {{"NAME", 'X', WIDTH}}, {}};
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    for (const auto &row : table.rows)
        ASSERT_EQ(fwu_writer_record(writer, FWU_OP_INSERT, layout, 1700000000, WIDTH, nullptr,
                                    item_of(md_code(row[0]).at(0)).data()),
                  0);
    fwu_commit commit;
    commit.time_us = 1700000000LL * 1000000;
    commit.lsn = 1;
    ASSERT_EQ(fwu_writer_commit(writer, commit), 0);
    fwu_writer_close(writer);
}

TEST(Utf8, TextColumnsShowWhatThePageSays)
{
    const md_table table =
        md_find_table(md_section(md_page("docs/capture-record.md"), "Texts in UTF-8"), "text");
    ASSERT_GE(table.rows.size(), 5U);
    const tempdir dir;
    ASSERT_NO_FATAL_FAILURE(write_log(dir, table));
    run_setup options;
    options.directory = dir.path();
    const run_result run = run_program({KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-ascii",
                                        "plain", "-ascii", "-dirty", "dirty", "message"},
                                       options);
    ASSERT_EQ(run.status, 0) << run.err;
    for (size_t file = 1; file <= 2; file++) {
        std::istringstream lines(read_file(dir.file(file == 1 ? "plain" : "dirty")));
        for (const auto &row : table.rows) {
            std::string line;
            ASSERT_TRUE(std::getline(lines, line));
            EXPECT_EQ(line.size(), HEADER + WIDTH) << "columns are bytes";
            EXPECT_EQ("\"" + line.substr(HEADER) + "\"", md_code(row[file]).at(0));
        }
    }
    const std::string message = read_file(dir.file("message"));
    for (const auto &row : table.rows)
        EXPECT_NE(message.find(item_of(md_code(row[0]).at(0))), std::string::npos) << row[0];
}
