// README.md: its first screen has what people come for, and its C program is compiled and run as
// it stands there.
#include "tests/support/markdown.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <csignal>
#include <gmock/gmock.h>

using testing::HasSubstr;

static constexpr int SCREEN_LINES = 40;

static std::string first_screen()
{
    const std::string page = md_page("README.md");
    size_t end = 0;
    for (int line = 0; line < SCREEN_LINES; line++)
        end = page.find('\n', end) + 1;
    return page.substr(0, end);
}

TEST(Readme, FirstScreenHasWhatPeopleComeFor)
{
    const std::string screen = first_screen();
    for (const char *what :
         {"fwlog postgresql --create --snapshot", "\n    Kestro ", "fwlog tail -f --json",
          "\n    [\"r\",\"CUSTOMERS\"", "docs/guide.md", "docs/changes-as-data.md",
          "docs/capread.md", "docs/operations.md", "--check", "CSV", "COBOL", "SQL"})
        EXPECT_THAT(screen, HasSubstr(what));
}

// A folder with the names that the page's commands take: the source's and the build's.
class ReadmeProgram : public testing::Test {
  protected:
    ReadmeProgram()
    {
        namespace fs = std::filesystem;
        fs::create_directory_symlink(KESTRO_SOURCE_DIR "/msgfile", dir.file("msgfile"));
        fs::create_directory_symlink(KESTRO_BUILD_DIR, dir.file("build"));
        fs::create_directory(dir.file("bin"));
        write_file(dir.file("bin/cc"),
                   "#!/bin/sh\nexec " KESTRO_CC " -Wall -Wextra -Werror \"$@\"\n");
        fs::permissions(dir.file("bin/cc"), fs::perms::owner_all);
        setup.directory = dir.path();
        setup.env = {
            {"PATH", dir.file("bin") + ":" KESTRO_BUILD_DIR "/bin:" + std::string(getenv("PATH"))}};
        section = md_section(md_page("README.md"), "The message-file library");
        write_file(dir.file("program.c"), md_find_block(section, "#include"));
    }

    ~ReadmeProgram() override
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            (void)wait_program(pid);
        }
    }

    // The command of the text that begins so.
    std::string command(const std::string &begins) const
    {
        for (const std::string &code : md_code(section))
            if (code.rfind(begins, 0) == 0)
                return code;
        throw std::runtime_error("no command " + begins);
    }

    void run(const std::string &text) const
    {
        const run_result result = run_program({"sh", "-c", text}, setup);
        ASSERT_EQ(result.out + result.err, "") << text;
        ASSERT_EQ(result.status, 0) << text;
    }

    tempdir dir;
    run_setup setup;
    std::string section;
    pid_t pid = 0;
};

TEST_F(ReadmeProgram, CompilesTellsThatItWaitsAndTakesWhatCame)
{
    ASSERT_NO_FATAL_FAILURE(run(command("cc -I. ")));
    pid = start_program({dir.file("a.out")}, setup, dir.file("out"), dir.file("err"));
    ASSERT_TRUE(poll_until([&] { return !read_file(dir.file("err")).empty(); }));
    EXPECT_EQ(read_file(dir.file("err")), "queue: waiting for records\n");
    run(command("echo hello "));
    EXPECT_EQ(wait_program(pid), 0); // the writer has gone
    pid = 0;
    EXPECT_EQ(read_file(dir.file("out")), "5 bytes: hello\n");
    EXPECT_EQ(read_file(dir.file("err")), "queue: waiting for records\n");
}

TEST_F(ReadmeProgram, TellsWhyItEnds)
{
    ASSERT_NO_FATAL_FAILURE(run(command("cc -I. ")));
    write_file(dir.file("queue"), std::string(300, 'x'));
    const run_result result = run_program({dir.file("a.out")}, setup);
    EXPECT_EQ(result.out, "File is not a message file.\n");
    EXPECT_EQ(result.status, 1);
}
