// What a page says to do is taken from the page and done: a directory of one's own, the programs by
// their names, a forward log that grows.
#ifndef TESTS_REMEDIES_REMEDY_FIXTURE_H
#define TESTS_REMEDIES_REMEDY_FIXTURE_H

#include "tests/procs/growing_log.h"
#include "tests/support/markdown.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

// The last cell of the row of a page whose first cell has that message in front.
inline std::string md_remedy(const std::string &page, const std::string &message)
{
    const std::string text = md_page(page);
    for (const char *head : {"message", "detail"}) {
        if (text.find("| " + std::string(head) + " |") == std::string::npos)
            continue;
        for (const md_table &table : md_find_tables(text, head)) {
            for (const auto &row : table.rows) {
                for (const std::string &code : md_code(row[0])) {
                    if (code.rfind(message, 0) == 0)
                        return row.back();
                }
            }
        }
    }
    throw std::runtime_error(page + " has no row of \"" + message + '"');
}

// The last cell of the row of a code of the message-file library.
inline std::string md_code_remedy(int code)
{
    for (const auto &row : md_find_table(md_page("docs/message-file.md"), "code").rows) {
        if ((row[0] + ",").find(std::to_string(code) + ",") != std::string::npos)
            return row.back();
    }
    throw std::runtime_error("no row of " + std::to_string(code));
}

// The piece of code of a remedy that begins so: "`tmf repair FILE`" by "tmf repair", with FILE
// replaced by the file that it is about.
inline std::string md_command(const std::string &remedy, const std::string &begins,
                              const std::string &file = "", const std::string &out = "")
{
    for (std::string code : md_code(remedy)) {
        if (code.rfind(begins, 0) != 0)
            continue;
        const auto put = [&code](const char *name, const std::string &by) {
            const size_t at = code.find(name);
            if (at != std::string::npos)
                code.replace(at, strlen(name), by);
        };
        put("FILE", file);
        put("OUT", out);
        return code;
    }
    throw std::runtime_error("no `" + begins + "...` in: " + remedy);
}

class RemedyRun : public testing::Test {
  protected:
    static constexpr int RECORDS = 1000;

    void SetUp() override
    {
        write_config(dir, "64M");
        options.directory = dir.path();
        options.env = {{"TZ", "UTC"},
                       {"PATH", KESTRO_BUILD_DIR "/bin:" + std::string(getenv("PATH"))}};
        options.unset = {"KESTRO_SYNC", "KESTRO_TEXT", "KESTRO_STATUS", "LD_LIBRARY_PATH"};
    }

    void append(int n)
    {
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        for (const int end = logged + n; logged < end; logged += 100)
            EXPECT_TRUE(append_transaction(writer, logged + 1, 100));
        fwu_writer_close(writer);
    }

    run_result sh(const std::string &script)
    {
        return run_program({"sh", "-c", script}, options);
    }
    // Expects a run that ends well and says nothing.
    void expect_good(const std::string &script)
    {
        const run_result run = sh(script);
        EXPECT_EQ(run.status, 0) << script << "\n" << run.err;
        EXPECT_EQ(run.err, "") << script;
    }
    // Expects one that ends with an error that says so.
    std::string expect_error(const std::string &script, const std::string &text)
    {
        const run_result run = sh(script);
        EXPECT_EQ(run.status, 1) << script;
        EXPECT_THAT(run.err, testing::HasSubstr(text)) << script;
        return run.err;
    }

    // The numbers of a text capture file's records, in their order.
    std::vector<int> numbers(const std::string &name) const
    {
        std::vector<int> all;
        std::istringstream in(read_file(dir.file(name)));
        for (std::string line; std::getline(in, line);)
            all.push_back(number_in(line));
        return all;
    }
    // Of a message file's, which stay in it.
    std::vector<int> message_numbers(const std::string &name)
    {
        std::vector<int> all;
        std::istringstream in(sh("tmf read --keep --hex " + name).out);
        for (std::string line; std::getline(in, line);)
            all.push_back(number_in_hex(line));
        return all;
    }
    static std::vector<int> from_to(int first, int last)
    {
        std::vector<int> all;
        for (int n = first; n <= last; n++)
            all.push_back(n);
        return all;
    }
    // What is there without the record in hand that came once more.
    static std::vector<int> once(std::vector<int> all)
    {
        all.erase(std::unique(all.begin(), all.end()), all.end());
        return all;
    }

    tempdir dir;
    run_setup options;
    int logged = 0;

  private:
    static int number_in(const std::string &line)
    {
        const size_t text = line.find("abcdefghijklmnopqrst");
        return text == std::string::npos || text < 10 ? -1 : std::stoi(line.substr(text - 10, 10));
    }
    // Little-endian, as the image has it.
    static int number_in_hex(const std::string &line)
    {
        const size_t text = line.find("6162636465666768");
        if (text == std::string::npos || text < 8)
            return -1;
        int number = 0;
        for (const size_t byte : {2U, 4U, 6U, 8U})
            number = number * 256 + std::stoi(line.substr(text - byte, 2), nullptr, 16);
        return number;
    }
};

#endif
