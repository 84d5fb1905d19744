// A small log, captured by the built Kestro, and the built capread on its files.
#ifndef TESTS_TOOLS_CAPREAD_CAPREAD_FIXTURE_H
#define TESTS_TOOLS_CAPREAD_CAPREAD_FIXTURE_H

#include "fwutil/fwutil.h"
#include "msgfile/tmf.h"
#include "tests/changes/written_log.h"
#include "tests/support/run.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using testing::HasSubstr;

inline fwu_layout capread_layout(const std::string &dataset = "ORDERS")
{
    return {.dbname = "SALES",
            .dsetname = dataset,
            .items = {{"NO", 'I', 4, 1, 0},
                      {"NAME", 'X', 4, 1, 0},
                      {"NET", 'P', 3, 2, 1},
                      {"NULL-MAP", 'X', 3, 1, 0}}};
}

inline std::string capread_image(uint64_t number, const std::string &name,
                                 const std::string &flags = "...")
{
    using namespace std::string_literals;
    return le(number, 4) + name + "\x00\x12\x3C\x00\x04\x5D"s + flags;
}

class Capread : public testing::Test {
  protected:
    void add(int32_t opcode, const std::string &before, const std::string &after,
             const std::string &dataset = "ORDERS")
    {
        fwu_session session;
        session.pname = "/opt/shop/bin/till";
        session.user = "KASSE1";
        session.pid = "4711";
        log.begin(&session);
        log.change(opcode, capread_layout(dataset), before, after);
        log.commit();
    }
    void insert(uint64_t number, const std::string &name = "Jo  ")
    {
        add(FWU_OP_INSERT, "", capread_image(number, name));
    }
    std::string file(const std::string &name) const
    {
        return log.dir.file(name);
    }
    run_setup setup() const
    {
        run_setup options;
        options.directory = log.dir.path();
        options.env = {{"TZ", "UTC"}};
        return options;
    }
    // Captures with these words behind Kestro's own.
    void kestro(std::vector<std::string> words)
    {
        words.insert(words.begin(), {KESTRO_BUILD_DIR "/bin/Kestro", "-synconly", "-stat",
                                     "status" + std::to_string(++runs)});
        const run_result result = run_program(words, setup());
        ASSERT_EQ(result.status, 0) << result.out << result.err;
    }
    void make_layouts()
    {
        const run_result result = run_program(
            {KESTRO_BUILD_DIR "/bin/fwlog", "layout", "-cfg", log.cfg, "--json"}, setup());
        ASSERT_EQ(result.status, 0) << result.err;
        write_file(file("layouts.json"), result.out);
    }
    static std::vector<std::string> command(std::vector<std::string> words)
    {
        words.insert(words.begin(), KESTRO_BUILD_DIR "/bin/capread");
        return words;
    }
    run_result capread(const std::vector<std::string> &words, const std::string &input = "")
    {
        run_setup options = setup();
        options.input = input;
        return run_program(command(words), options);
    }
    // The lines of changes.
    std::string lines(const std::vector<std::string> &words)
    {
        const run_result result = capread(words);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        return without_layouts(result.out);
    }
    static std::string without_layouts(const std::string &text)
    {
        std::string kept;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
            kept += line.starts_with(R"({"schema")") ? "" : line + "\n";
        return kept;
    }
    // How many records a message file has.
    int records(const std::string &name) const
    {
        tmf_handle *h = tmf_fopen(file(name).c_str(), 0);
        int32_t n = -1;
        EXPECT_EQ(tmf_getinfo(h, TMF_INFO_RECORDS, &n, 0), 0);
        EXPECT_EQ(tmf_fclose(h), 0);
        return n;
    }
    written_log log;
    int runs = 0;
};

// The line of a change as it is without session and record number.
inline std::string capread_line(const std::string &op, const std::string &before,
                                const std::string &after)
{
    return R"({"op":")" + op + R"(","before":)" + before + R"(,"after":)" + after +
           R"(,"source":{"database":"SALES","dataset":"ORDERS","table":null,"position":null,)"
           R"("record":null,"xid":null,"lsn":null,"commit_us":null,"program":null,"user":null,)"
           R"("login":null,"pid":null},"transaction":null,"ts_ms":1700000000000})"
           "\n";
}

inline std::string capread_values(int number, const std::string &name)
{
    return R"({"NO":)" + std::to_string(number) + R"(,"NAME":)" + name + R"(,"NET":[12.3,-4.5]})";
}

#endif
