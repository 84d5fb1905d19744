// Running the built program over the scripted forward-log library.
#ifndef TESTS_CLI_CLI_FIXTURE_H
#define TESTS_CLI_CLI_FIXTURE_H

#include "tests/support/captured.h"
#include "tests/support/golden.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>

inline const char program[] = KESTRO_BUILD_DIR "/bin/Kestro";

using words = std::vector<std::string>;

class Cli : public testing::Test {
  protected:
    Cli()
    {
        options.directory = dir.path();
        options.env = {{"LD_LIBRARY_PATH", KESTRO_SCRIPTED_DIR},
                       {"KESTRO_TEST_SCRIPT", dir.file("script")},
                       {"KESTRO_TEST_CALLS", dir.file("calls")},
                       {"TZ", "UTC"}};
        options.unset = {"KESTRO_MAXCAP"};
        script("");
    }

    void script(const std::string &lines)
    {
        write_file(dir.file("script"), lines);
    }

    static words command(words args)
    {
        args.insert(args.begin(), program);
        return args;
    }

    // Runs the program in the test's directory and compares all that it did.
    void expect(const words &args, int status, const std::string &out, const std::string &err)
    {
        SCOPED_TRACE(testing::PrintToString(args));
        std::filesystem::remove(dir.file("calls"));
        const run_result result = run_program(command(args), options);
        EXPECT_EQ(status, result.status);
        EXPECT_EQ(out, result.out);
        EXPECT_EQ(err, without_stamps(result.err));
    }

    // What the library was asked since the last run began.
    std::string calls() const
    {
        return read_file(dir.file("calls"));
    }

    static std::string help()
    {
        std::string text = golden("help.txt");
        return text.replace(text.find("%s"), 2, program);
    }

    const tempdir dir;
    run_setup options;
};

inline const char failed[] = "ERROR encountered during processing.\n";

inline const char no_skips[] =
    "\nLog records not copied to any capture file:\n"
    "\n    * No records skipped.  All records copied to a capture file.\n\n";

#endif
