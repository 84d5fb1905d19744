// Text capture files that two write to: told, and written as ever.
#include "tests/cli/cli_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

class CliShared : public Cli {
  protected:
    CliShared()
    {
        script("item T X 1 1 0\nrecord D S 0 3 1 - 41\n");
        options.unset.push_back("KESTRO_TEXT");
    }
    // What a run tells on standard error.
    std::string told(const words &args, const char *text = nullptr)
    {
        if (text != nullptr)
            options.env["KESTRO_TEXT"] = text;
        const run_result run = run_program(command(args), options);
        options.env.erase("KESTRO_TEXT");
        EXPECT_EQ(0, run.status) << run.err;
        return run.err;
    }
};

static const std::string overwrites =
    "what one writes the other overwrites; give each a name of its own, or KESTRO_TEXT=append to "
    "have the records mixed\n";
static const std::string mixed = "the records are mixed in it\n";

TEST_F(CliShared, OneTextFileNamedTwiceByARunIsTold)
{
    write_file(dir.file("real"), "");
    std::filesystem::create_symlink("real", dir.file("link"));
    std::filesystem::create_hard_link(dir.file("real"), dir.file("hard"));
    std::filesystem::create_directory(dir.file("d"));
    std::filesystem::create_symlink("d/further", dir.file("leads"));
    std::filesystem::create_symlink("../none-yet", dir.file("d/further"));
    const struct {
        const char *first, *second;
    } cases[] = {
        {"cap", "cap"},   {"cap", "./cap"}, {"d/../not-there", "not-there"},
        {"real", "link"}, {"hard", "real"}, {"none-yet", "leads"},
    };
    for (const auto &c : cases) {
        const std::string warning = "Warning: capture files " + std::string(c.first) + " and " +
                                    c.second + " are one text file: ";
        EXPECT_EQ(warning + overwrites, told({"-ascii", c.first, "-ascii", c.second}));
        EXPECT_EQ(warning + mixed, told({"-ascii", c.first, "-ascii", c.second}, "append"));
    }
    EXPECT_EQ(3 * 64U, read_file(dir.file("cap")).size()) << "written as without the warning";
    const std::string three = told({"-ascii", "cap", "-ascii", "cap", "-ascii", "./cap"});
    EXPECT_EQ("Warning: capture files cap and cap are one text file: " + overwrites +
                  "Warning: capture files cap and ./cap are one text file: " + overwrites,
              three);
}

TEST_F(CliShared, WhatMayBeSharedIsNotTold)
{
    EXPECT_EQ("", told({"-ascii", "a", "-ascii", "b"}));
    EXPECT_EQ("", told({"-ascii", "/dev/null", "-ascii", "/dev/null"}));
    EXPECT_EQ("", told({"msg", "msg"}));
}

TEST_F(CliShared, AFileThatAnotherProcessWritesIsTold)
{
    const int other = open(dir.file("cap").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int reader = open(dir.file("read").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string warning =
        "Warning: another process has text capture file cap open for writing: ";
    EXPECT_EQ(warning + overwrites, told({"-ascii", "cap"}));
    EXPECT_EQ(warning + mixed, told({"-ascii", "cap"}, "append"));
    EXPECT_EQ("", told({"-ascii", "read"})) << "readers are welcome";
    close(other);
    EXPECT_EQ("", told({"-ascii", "cap"}));
    close(reader);
}
