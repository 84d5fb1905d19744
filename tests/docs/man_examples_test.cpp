// The programs in the manual pages of the libraries, and the Python one, are compiled and run as
// they stand there.
#include "tests/docs/changes_page.h"
#include "tests/support/man_page.h"

#include <algorithm>
#include <csignal>
#include <regex>

// The programs of the section EXAMPLES.
static std::vector<std::string> programs_of(const std::string &page)
{
    static const std::string begins = ".Bd -literal -offset indent\n", ends = ".Ed\n";
    const std::string text = man_section(man_page(page), "EXAMPLES");
    std::vector<std::string> found;
    for (size_t at = 0; (at = text.find(begins, at)) != std::string::npos;) {
        at += begins.size();
        const size_t end = text.find(ends, at);
        // "\e" is how a page writes a backslash.
        found.push_back(
            std::regex_replace(text.substr(at, end - at), std::regex(R"(\\e)"), R"(\)"));
        at = end;
    }
    return found;
}

static std::string run_shell(const tempdir &dir, const std::string &line)
{
    run_setup setup;
    setup.directory = dir.path();
    setup.env = {{"PYTHONPATH", KESTRO_SOURCE_DIR "/python"},
                 {"LIBTMF", KESTRO_BUILD_DIR "/lib/libtmf.so.1"},
                 {"PYTHONDONTWRITEBYTECODE", "1"}};
    const run_result run =
        run_program({"sh", "-c", "PATH=" KESTRO_BUILD_DIR "/bin:$PATH\n" + line}, setup);
    EXPECT_EQ(run.err, "") << line;
    EXPECT_EQ(run.status, 0) << line;
    return run.out;
}

static void compile(const tempdir &dir, const std::string &text, const std::string &name,
                    const std::string &library)
{
    write_file(dir.file(name + ".c"), text);
    EXPECT_EQ(run_shell(dir, KESTRO_CC " -Wall -Wextra -Werror -I" KESTRO_SOURCE_DIR " -o " + name +
                                 " " + name + ".c " KESTRO_BUILD_DIR "/lib/" + library +
                                 " -Wl,-rpath," KESTRO_BUILD_DIR "/lib"),
              "");
}

TEST(ManExamples, WriterAndReaderOfAMessageFile)
{
    const std::vector<std::string> programs = programs_of("tmf.3");
    ASSERT_EQ(programs.size(), 2U);
    const tempdir dir;
    compile(dir, programs[0], "writer", "libtmf.a");
    compile(dir, programs[1], "reader", "libtmf.a");
    EXPECT_EQ(run_shell(dir, "printf 'one\\ntwo\\n' | ./writer && ./reader"), "one\ntwo\n");
}

TEST(ManExamples, ReaderOfAForwardLog)
{
    const std::vector<std::string> programs = programs_of("fwutil.3");
    ASSERT_EQ(programs.size(), 1U);
    const changes_page example;
    compile(example.dir, programs[0], "changes", "libfwutil.so");
    const std::string out = example.dir.file("out");
    const pid_t pid = start_program({example.dir.file("changes")}, example.setup, out, "");
    EXPECT_TRUE(poll_until([&] {
        const std::string text = read_file(out);
        return std::count(text.begin(), text.end(), '\n') == 8431;
    })) << read_file(out).substr(0, 1000);
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_program(pid), 0); // the library ends the wait
    EXPECT_EQ(read_file(out).rfind("DEPOT.ITEMS operation ", 0), 0U);
}

#ifndef KESTRO_SANITIZED // Python does not load a library with sanitizers
TEST(ManExamples, ReaderInPython)
{
    if (const std::string why = missing_program({{"python3", "python3"}}); !why.empty())
        GTEST_SKIP() << why;
    const std::vector<std::string> programs = programs_of("tmf-python.3");
    ASSERT_EQ(programs.size(), 1U);
    const tempdir dir;
    write_file(dir.file("reader.py"), programs[0]);
    EXPECT_EQ(run_shell(dir, "printf 'one\\ntwo\\n' | tmf write orders && python3 reader.py"),
              "one\ntwo\n");
    EXPECT_EQ(run_shell(dir, "tmf read --wait 0 orders"), "");
}
#endif
