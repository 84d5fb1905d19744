// What makes a fault in memory hard to use is in each program and library of an optimised build,
// and in the command that compiled each source.
#include "tests/support/program.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>
#include <regex>
#include <sstream>

using testing::AnyOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

static const std::string BUILD = KESTRO_BUILD_DIR;
static const char *const PROGRAMS[] = {"/bin/Kestro", "/bin/fwlog", "/bin/capread",
#ifdef KESTRO_HAS_SHIP
                                       "/bin/capship",
#endif
                                       "/bin/tmf"};
static const char *const LIBRARIES[] = {"/lib/libtmf.so", "/lib/libfwutil.so"};

class Hardening : public testing::Test {
  protected:
    void SetUp() override
    {
#ifdef KESTRO_SANITIZED
        GTEST_SKIP() << "a build with sanitizers has their checks instead";
#endif
        NEED_PROGRAM("readelf", "binutils");
    }

    static std::string readelf(const std::string &what, const std::string &file)
    {
        const run_result ran = run_program({"/usr/bin/env", "readelf", "-W", what, BUILD + file});
        EXPECT_EQ(ran.status, 0) << ran.err;
        return ran.out;
    }

    // What programs and libraries have in common.
    static void expect_hardened(const std::string &file)
    {
        SCOPED_TRACE(file);
        const std::string segments = readelf("-l", file);
        EXPECT_THAT(segments, HasSubstr("GNU_RELRO"));
        EXPECT_THAT(segments, ContainsRegex("GNU_STACK[^\n]* RW ")) << "no code on the stack";
        EXPECT_THAT(segments, Not(ContainsRegex("LOAD[^\n]* RWE "))) << "no memory of both kinds";
        const std::string dynamic = readelf("-d", file);
        EXPECT_THAT(dynamic, ContainsRegex("FLAGS_1[^\n]*NOW")) << "all of RELRO";
        EXPECT_THAT(dynamic, Not(HasSubstr("TEXTREL")));
        EXPECT_THAT(dynamic, Not(HasSubstr("(RPATH)")));
        EXPECT_THAT(readelf("--dyn-syms", file), HasSubstr("__stack_chk_fail"));
    }
};

TEST_F(Hardening, Programs)
{
    for (const char *program : PROGRAMS) {
        expect_hardened(program);
        EXPECT_THAT(readelf("-h", program), HasSubstr("DYN ")) << program;
        EXPECT_THAT(readelf("-d", program), ContainsRegex("FLAGS_1[^\n]*PIE")) << program;
        EXPECT_THAT(readelf("--dyn-syms", program), ContainsRegex(" __[a-z0-9_]+_chk@"))
            << program << " has calls that check the buffer's size";
    }
}

TEST_F(Hardening, Libraries)
{
    for (const char *library : LIBRARIES) {
        expect_hardened(library);
        EXPECT_THAT(readelf("--dyn-syms", library), ContainsRegex(" __[a-z0-9_]+_chk@")) << library;
    }
}

// What this system's libraries do not say of themselves, the linker does not say of a program; the
// library's objects do.
TEST_F(Hardening, JumpTargetsAreMarked)
{
#if !defined(__x86_64__)
    GTEST_SKIP() << "not a property of this machine";
#endif
    const std::string notes = readelf("-n", "/lib/libtmf.a");
    size_t objects = 0;
    for (size_t at = 0; (at = notes.find("File: ", at)) != std::string::npos; at++)
        objects++;
    size_t marked = 0;
    for (size_t at = 0; (at = notes.find("x86 feature: IBT, SHSTK", at)) != std::string::npos; at++)
        marked++;
    EXPECT_GT(objects, 10U);
    EXPECT_EQ(marked, objects);
}

// The commands of the sources that are not tests: file -> command.
static std::vector<std::pair<std::string, std::string>> commands()
{
    const std::string all = read_file(BUILD + "/compile_commands.json");
    std::vector<std::pair<std::string, std::string>> found;
    std::istringstream lines(all);
    std::string command;
    static const std::regex member("^ *\"(command|file)\": \"(.*)\",?$");
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        if (!std::regex_match(line, parts, member))
            continue;
        if (parts[1] == "command") {
            command = parts[2];
            continue;
        }
        const std::string file = parts[2];
        // Tests compile some of the sources once more, for themselves.
        if (file.find("/tests/") == std::string::npos &&
            command.find(" -o tests/") == std::string::npos)
            found.emplace_back(file, command + " ");
    }
    return found;
}

TEST_F(Hardening, EachSourceIsCompiledWithIt)
{
    const auto found = commands();
    EXPECT_GT(found.size(), 200U);
    for (const auto &[file, command] : found) {
        SCOPED_TRACE(file);
        EXPECT_THAT(command, HasSubstr(" -Werror=format-security "));
        EXPECT_THAT(command, HasSubstr(" -Werror=format-nonliteral "));
        EXPECT_THAT(command, HasSubstr(" -fstack-protector-strong "));
        EXPECT_THAT(command, AnyOf(HasSubstr(" -fPIE "), HasSubstr(" -fPIC ")));
        if (command.find("-O") != std::string::npos) {
            EXPECT_THAT(command, ContainsRegex(" -D_FORTIFY_SOURCE=[23] "));
        }
#if defined(__x86_64__)
        EXPECT_THAT(command, HasSubstr(" -fstack-clash-protection "));
        EXPECT_THAT(command, HasSubstr(" -fcf-protection "));
#endif
    }
}

// A format that is not written in the source does not compile, with the warnings that all have.
TEST_F(Hardening, FormatFromDataIsRefused)
{
    std::string compile;
    for (const auto &[file, command] : commands()) {
        if (file.find("/msgfile/tmf_error.cpp") != std::string::npos)
            compile = command.substr(0, command.find(" -o "));
    }
    ASSERT_NE(compile, "");
    tempdir dir;
    const auto compiled = [&](const std::string &call) {
        write_file(dir.file("format.cpp"), "#include <cstdio>\nvoid f(const char *data);\n"
                                           "void f(const char *data)\n{\n    " +
                                               call + ";\n}\n");
        return run_program({"/bin/sh", "-c", compile + " -fsyntax-only " + dir.file("format.cpp")});
    };
    EXPECT_EQ(compiled("printf(\"%s\", data)").status, 0);
    EXPECT_NE(compiled("printf(data)").status, 0);
    EXPECT_NE(compiled("printf(data, data)").status, 0);
}
