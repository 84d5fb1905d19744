// An installation: its programs run from where they stand, and other people's programs are
// built with its library, by find_package, by pkg-config and by hand.
#include "tests/support/markdown.h"
#include "tests/support/program.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>
#include <regex>
#include <sstream>

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

static const std::string SOURCE = KESTRO_SOURCE_DIR;
static const std::string LIB = std::string("/") + LIBDIR;

// One installation for all cases, which do not change it.
class Installed : public testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        scratch = new tempdir;
        prefix = scratch->file("a tree");
        // Another case may be installing, too, and writes the same manifest.
        run_setup setup;
        setup.directory = scratch->path();
        setup.env = {{"BUILD", KESTRO_BUILD_DIR}, {"CMAKE", CMAKE_PROGRAM}};
        installing = run_program({"/bin/sh", "-euc",
                                  "exec 9>>\"$BUILD/install.lock\"; flock 9;"
                                  "\"$CMAKE\" --install \"$BUILD\" --prefix 'a tree';"
                                  "cp \"$BUILD/install_manifest.txt\" ."},
                                 setup);
    }
    static void TearDownTestSuite()
    {
        delete scratch;
    }
    void SetUp() override
    {
        ASSERT_EQ(installing.status, 0) << installing.out << installing.err;
    }

    // What one of the consumers prints, with a queue of its own.
    std::string queue(const std::string &program)
    {
        const run_result ran = run_program({program, dir.file("queue")});
        EXPECT_EQ(ran.status, 0) << program << ran.out << ran.err;
        return ran.out;
    }

    // Runs a command line of a shell in the test's folder, with the installation's PATH and
    // what pkg-config goes by.
    run_result shell(const std::string &line)
    {
        run_setup setup;
        setup.directory = dir.path();
        setup.env = {{"PREFIX", prefix},
                     {"LIB", prefix + LIB},
                     {"SOURCE", SOURCE},
                     {"PATH", prefix + "/bin:" + getenv("PATH")},
                     {"PKG_CONFIG_PATH", prefix + LIB + "/pkgconfig"}};
        setup.unset = {"LD_LIBRARY_PATH", "LIBRARY_PATH", "CPATH"};
        return run_program({"/bin/sh", "-c", line}, setup);
    }

    void expect_shell(const std::string &line, const std::string &out)
    {
        const run_result ran = shell(line);
        EXPECT_EQ(ran.status, 0) << line << "\n" << ran.err;
        EXPECT_EQ(ran.out, out) << line;
    }

    tempdir dir;
    static inline tempdir *scratch;
    static inline std::string prefix;
    static inline run_result installing;
};

TEST_F(Installed, ProgramsRunAlsoWhenTheTreeWasMoved)
{
    const std::string moved = dir.file("moved");
    fs::copy(prefix, moved, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    for (const std::string &tree : {prefix, moved}) {
        for (const char *program : {"fwlog", "capread", "tmf"}) {
            EXPECT_THAT(run_program({tree + "/bin/" + program, "--version"}).out,
                        StartsWith(program));
        }
        const run_result loaded = shell("ldd '" + tree + "/bin/Kestro'");
        EXPECT_THAT(loaded.out, HasSubstr(tree + "/bin/../lib")) << "ours beside it";
        EXPECT_THAT(run_program({tree + "/bin/Kestro", "-help"}).out, HasSubstr("-stat"));
    }
}

TEST_F(Installed, ManifestRemovesAllFiles)
{
    const std::string command =
        md_find_block(md_section(md_page("docs/install.md"), "From a build"), "xargs");
    const std::string manifest = "build/install_manifest.txt";
    ASSERT_THAT(command, HasSubstr(manifest));
    // From a copy of the tree, under the names of the copy.
    expect_shell("cp -a \"$PREFIX\" copy; mkdir build; sed \"s,^$PREFIX,$PWD/copy,\" "
                 "\"$PREFIX/../install_manifest.txt\" >" +
                     manifest + "; " + command + "find copy ! -type d",
                 "");
}

TEST_F(Installed, LibrariesHaveTheirNames)
{
    EXPECT_EQ(fs::read_symlink(prefix + LIB + "/libtmf.so"), "libtmf.so.1");
    EXPECT_EQ(fs::read_symlink(prefix + LIB + "/libtmf.so.1"), "libtmf.so.1.1");
    NEED_PROGRAM("readelf", "binutils");
    EXPECT_THAT(run_program({"/usr/bin/env", "readelf", "-d", prefix + LIB + "/libtmf.so"}).out,
                HasSubstr("[libtmf.so.1]"));
    EXPECT_THAT(run_program({"/usr/bin/env", "readelf", "-d", prefix + LIB + "/libfwutil.so"}).out,
                HasSubstr("[libfwutil.so]"));
}

#ifndef KESTRO_SANITIZED // what is linked would need the sanitizers' libraries
TEST_F(Installed, FoundByCMake)
{
    // The page's lines stand in the project.
    std::istringstream lines(md_find_block(md_page("docs/install.md"), "find_package(tmf"));
    for (std::string line; std::getline(lines, line);)
        EXPECT_THAT(read_file(SOURCE + "/tests/packaging/consumer/CMakeLists.txt"),
                    HasSubstr(line + "\n"));

    const std::string build = dir.file("build");
    const run_result configured = run_program(
        {CMAKE_PROGRAM, "-S", SOURCE + "/tests/packaging/consumer", "-B", build,
         "-DCMAKE_PREFIX_PATH=" + prefix, std::string("-DCMAKE_C_COMPILER=") + C_COMPILER,
         std::string("-DCMAKE_CXX_COMPILER=") + CXX_COMPILER});
    ASSERT_EQ(configured.status, 0) << configured.err;
    const run_result built = run_program({CMAKE_PROGRAM, "--build", build});
    ASSERT_EQ(built.status, 0) << built.out << built.err;
    for (const char *kind : {"shared", "static"}) {
        EXPECT_EQ(queue(build + "/c_" + kind), "from C\n");
        EXPECT_EQ(queue(build + "/cxx_" + kind), "from C++\n");
    }
}

TEST_F(Installed, NewerVersionIsNotFoundByCMake)
{
    write_file(dir.file("CMakeLists.txt"), "cmake_minimum_required(VERSION 3.25)\n"
                                           "project(newer LANGUAGES NONE)\n"
                                           "find_package(tmf 1.99 REQUIRED)\n");
    const run_result configured = run_program({CMAKE_PROGRAM, "-S", dir.path(), "-B",
                                               dir.file("build"), "-DCMAKE_PREFIX_PATH=" + prefix});
    EXPECT_NE(configured.status, 0);
    EXPECT_THAT(configured.err, HasSubstr("tmfConfig.cmake, version: 1.1"));
}

TEST_F(Installed, FoundByPkgConfig)
{
    NEED_PROGRAM("pkg-config", "pkgconf");
    expect_shell("pkg-config --modversion tmf", "1.1\n");
    const std::string run = " && LD_LIBRARY_PATH=\"$LIB\" ./queue q";
    const std::string eval = "eval "; // the blank in the prefix is written "\\ "
    expect_shell(eval +
                     C_COMPILER " $SOURCE/tests/packaging/consumer/queue.c -o queue "
                                "$(pkg-config --cflags --libs tmf)" +
                     run,
                 "from C\n");
    expect_shell(eval +
                     CXX_COMPILER " $SOURCE/tests/packaging/consumer/queue.cpp -o queue "
                                  "$(pkg-config --cflags --libs tmf)" +
                     run,
                 "from C++\n");
}

TEST_F(Installed, LinkedByHand)
{
    expect_shell(C_COMPILER " -I\"$PREFIX/include\" $SOURCE/tests/packaging/consumer/queue.c "
                            "\"$LIB/libtmf.a\" -o queue && ./queue q",
                 "from C\n");
}
#endif

TEST_F(Installed, BashFindsTheCompletion)
{
    if (!fs::exists("/usr/share/bash-completion/bash_completion"))
        GTEST_SKIP() << "bash-completion is missing: Debian package bash-completion";
    fs::create_directory_symlink(prefix + "/share",
                                 dir.file("share")); // its loader splits at blanks
    for (const char *program : {"Kestro", "fwlog", "capread", "capship", "tmf"}) {
        expect_shell(std::string("BASH_COMPLETION_USER_DIR=$PWD/share/bash-completion bash -c '"
                                 ". /usr/share/bash-completion/bash_completion;"
                                 "_completion_loader ") +
                         program + "; complete -p " + program + "'",
                     std::string("complete -F _kestro ") + program + "\n");
    }
}

// A prefix that stands before what is made later by the installing user.
TEST_F(Installed, DestdirIsNotInTheFiles)
{
    const run_result staged =
        run_program({"/usr/bin/flock", KESTRO_BUILD_DIR "/install.lock", "/usr/bin/env",
                     "DESTDIR=" + dir.file("stage"), CMAKE_PROGRAM, "--install", KESTRO_BUILD_DIR,
                     "--prefix", "/opt/k"});
    ASSERT_EQ(staged.status, 0) << staged.err;
    const std::string lib = dir.file("stage/opt/k") + LIB;
    EXPECT_THAT(read_file(lib + "/pkgconfig/tmf.pc"), HasSubstr("\nprefix=/opt/k\n"));
    EXPECT_THAT(read_file(lib + "/cmake/tmf/tmfTargets.cmake"), Not(HasSubstr(dir.path())));
}

// The pages stand as in the source tree, and lead to each other.
TEST_F(Installed, PagesLeadToEachOther)
{
    static const std::regex link(R"(\]\(([^)#]+)(#[^)]*)?\))");
    const fs::path pages = prefix + "/share/doc/kestro";
    size_t links = 0;
    for (const auto &entry : fs::recursive_directory_iterator(pages)) {
        if (entry.path().extension() != ".md")
            continue;
        const std::string page = read_file(entry.path());
        for (std::sregex_iterator at(page.begin(), page.end(), link), end; at != end; ++at) {
            const std::string file = (*at)[1];
            EXPECT_TRUE(fs::exists(entry.path().parent_path() / file))
                << entry.path() << ": " << file;
            links++;
        }
    }
    EXPECT_GT(links, 50U);
}
