// A log of a few records with its configuration, and the programs run on it with plain names.
#ifndef TESTS_PROCS_SMALL_RUN_H
#define TESTS_PROCS_SMALL_RUN_H

#include "tests/procs/growing_log.h"

#include <gmock/gmock.h>
#include <vector>

using words = std::vector<std::string>;

constexpr int RECORDS = 20;

inline const words RUN = {"Kestro", "-synconly", "-cfg", "fwutil.cfg", "-stat", "s"};

inline words with(words command, const words &more)
{
    command.insert(command.end(), more.begin(), more.end());
    return command;
}

class small_run {
  protected:
    const tempdir dir;
    run_setup here;

    void make_log()
    {
        here.directory = dir.path();
        here.env = {{"TZ", "UTC"}};
        here.unset = {"FWUTIL_CFG", "KESTRO_STATUS"};
        std::filesystem::create_directory(dir.file("log"));
        write_config(dir, "1M");
        fwu_config config;
        ASSERT_EQ(fwu_config_read(config, dir.file("fwutil.cfg").c_str()), 0);
        fwu_writer *writer = nullptr;
        ASSERT_EQ(fwu_writer_open(&writer, config), 0);
        ASSERT_TRUE(append_transaction(writer, 1, RECORDS));
        fwu_writer_close(writer);
    }

    // A program's words, its name first, behind those of a program that runs it; for no longer
    // than a minute.
    run_result run(words argv, const words &under = {}) const
    {
        argv[0] = KESTRO_BUILD_DIR "/bin/" + argv[0];
        argv.insert(argv.begin(), under.begin(), under.end());
        argv.insert(argv.begin(), {"/usr/bin/env", "timeout", "60"});
        return run_program(argv, here);
    }

    // A run into a new file has all records.
    void expect_all_captured() const
    {
        const run_result whole = run(with(RUN, {"out"}));
        EXPECT_EQ(whole.status, 0) << whole.err;
        EXPECT_THAT(whole.out, testing::HasSubstr(std::to_string(RECORDS) +
                                                  " records written to capture file out\n"));
        EXPECT_THAT(run({"tmf", "info", "out"}).out,
                    testing::HasSubstr("records  " + std::to_string(RECORDS) + ","));
    }
};

#endif
