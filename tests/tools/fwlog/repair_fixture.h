// What the tests of fwlog repair share: a small log of known places, and what is asked of it.
#ifndef TESTS_TOOLS_FWLOG_REPAIR_FIXTURE_H
#define TESTS_TOOLS_FWLOG_REPAIR_FIXTURE_H

#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_log.h"
#include "tests/procs/growing_log.h"
#include "tests/tools/fwlog/built_log.h"
#include "tests/tools/fwlog/commit_lsns.h"

#include <gtest/gtest.h>
#include <map>

inline const std::string program = KESTRO_BUILD_DIR "/bin/fwlog";
inline const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";

using file_map = std::map<std::string, std::string>;

class FwlogRepairTest : public testing::Test {
  protected:
    // Three files of 800 bytes with two transactions each: header 64, layout 96, then three
    // inserts of 88 and a commit of 56 twice.  Their source positions are 0/2, 0/5, ... 0/11.
    void make(bool acknowledged = true)
    {
        append(0, 6, acknowledged);
        ASSERT_EQ(read_file(file(3)).size(), 800U);
        whole = everything();
    }
    void append(int from, int to, bool acknowledged)
    {
        write_config(dir, "4K");
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        config.log_file_size = 481;
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        for (int n = from; n < to; n++)
            ASSERT_TRUE(append_transaction(writer, 1 + 3 * n, 3));
        ASSERT_EQ(fwu_writer_sync(writer), 0);
        if (acknowledged) {
            ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
        }
        ASSERT_EQ(fwu_writer_close(writer), 0);
    }
    run_result run(const std::vector<std::string> &words, const std::string &ending = "")
    {
        run_setup options;
        options.directory = dir.path();
        options.env = {{"TZ", "UTC"}};
        if (!ending.empty())
            options.env = {{"LD_PRELOAD", ENDING_CALLS},
                           {"ENDING_CALL", ending},
                           {"ASAN_OPTIONS", "verify_asan_link_order=0"}};
        return run_program(words, options);
    }
    run_result repair(std::vector<std::string> words = {}, const std::string &ending = "")
    {
        words.insert(words.begin(), {program, "repair"});
        return run(words, ending);
    }
    std::string file(int n) const
    {
        return dir.file("log/" + fwu_log_file_name(1, n));
    }
    void flip(const std::string &path, size_t at)
    {
        std::string bytes = read_file(path);
        bytes.at(at) = static_cast<char>(bytes[at] ^ 1);
        write_file(path, bytes);
    }
    file_map everything() const
    {
        file_map files;
        for (const auto &entry : std::filesystem::directory_iterator(dir.file("log")))
            if (entry.is_regular_file())
                files[entry.path().filename()] = read_file(entry.path());
        return files;
    }
    void put_back(const file_map &files)
    {
        std::filesystem::remove_all(dir.file("log"));
        std::filesystem::create_directory(dir.file("log"));
        for (const auto &[name, bytes] : files)
            write_file(dir.file("log/" + name), bytes);
    }
    // The source positions of the log's commits, which verify calls sound.
    std::vector<uint64_t> commits()
    {
        EXPECT_EQ(run({program, "verify"}).status, 0) << run({program, "verify"}).out;
        return commit_lsns(dir.file("log"));
    }
    fwu_ack acked() const
    {
        fwu_ack ack;
        EXPECT_EQ(fwu_ack_read(dir.file("log"), ack), FWU_FOUND);
        return ack;
    }
    tempdir dir;
    file_map whole;
};

#endif
