// The built libraries: what the shared one exports, and a C program over each.
#include "msgfile/tmf.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <sys/stat.h>

TEST(TmfLibrary, ExportsTheCallsOfItsHeaderAndNothingElse)
{
    const run_result nm = run_program({"nm", "-D", "--defined-only", TMF_SHARED_LIBRARY});
    ASSERT_EQ(nm.status, 0) << nm.err;
    std::istringstream lines(nm.out);
    std::multiset<std::string> names;
    std::string address;
    std::string type;
    for (std::string name; lines >> address >> type >> name;) {
        names.insert(name);
        EXPECT_EQ(type, "T") << name;
    }
    EXPECT_EQ(names, (std::multiset<std::string>{
                         "tmf_check", "tmf_clearerr", "tmf_fclose", "tmf_fctl", "tmf_fflush",
                         "tmf_finfo", "tmf_fopen", "tmf_fread", "tmf_fread_many", "tmf_freadx",
                         "tmf_fremove", "tmf_fwrite", "tmf_fwrite_many", "tmf_geterrmsg",
                         "tmf_geterrno", "tmf_getinfo", "tmf_repair", "tmf_strerror"}));
}

// The name to link with leads to the library of this version, which programs ask for
// by its soname.
TEST(TmfLibrary, SonameHasTheVersionsFirstPart)
{
    const std::string text = TMF_VERSION_TEXT;
    const std::string soname = "libtmf.so." + std::to_string(TMF_VERSION_MAJOR);
    EXPECT_EQ(text, std::to_string(TMF_VERSION_MAJOR) + "." + std::to_string(TMF_VERSION_MINOR));
    EXPECT_EQ(TMF_VERSION, TMF_VERSION_MAJOR * 1000 + TMF_VERSION_MINOR);

    const std::filesystem::path name = TMF_SHARED_LIBRARY;
    EXPECT_EQ(name.filename(), "libtmf.so");
    EXPECT_EQ(std::filesystem::read_symlink(name), soname);
    EXPECT_EQ(std::filesystem::canonical(name).filename(), "libtmf.so." + text);

    const run_result dynamic = run_program({"readelf", "-d", TMF_SHARED_LIBRARY});
    ASSERT_EQ(dynamic.status, 0) << dynamic.err;
    EXPECT_THAT(dynamic.out, testing::HasSubstr("soname: [" + soname + "]"));
    const run_result program = run_program({"readelf", "-d", TMF_C_PROGRAM_SHARED});
    ASSERT_EQ(program.status, 0) << program.err;
    EXPECT_THAT(program.out, testing::HasSubstr("Shared library: [" + soname + "]"));
}

// Linked by the C linker without a C++ runtime.
TEST(TmfLibrary, CProgramWritesAndReadsWithEitherLibrary)
{
    for (const char *program : {TMF_C_PROGRAM_STATIC, TMF_C_PROGRAM_SHARED}) {
        SCOPED_TRACE(program);
        const tempdir dir;
        const std::string path = dir.file("queue");
        const run_result run = run_program({program, path});
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(run.out, "no name: -5269 No file name specified on file open.\n"
                           "3 records up to 4386\n"
                           "too long: -5216\n"
                           "last code: -5216 Invalid record size.\n"
                           "cleared: 0\n"
                           "asked for: -5259 Invalid info requested.\n"
                           "kept first\n"
                           "took first\n"
                           "took second\n"
                           "took third\n");
        struct stat info = {};
        ASSERT_EQ(stat(path.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0666U);
    }
}
