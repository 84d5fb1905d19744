// What others with access to the log directory put there under the names of files that are to come:
// nothing is written through it, and the log goes on.
#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_readers.h"

#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

using testing::HasSubstr;
namespace fs = std::filesystem;

// Puts something of each kind in turn in the place of a file.
struct planting {
    const char *kind;
    void (*plant)(const std::string &victim, const std::string &path);
};
static const planting kinds[] = {
    {"link",
     [](const std::string &victim, const std::string &path) { fs::create_symlink(victim, path); }},
    {"link to nothing",
     [](const std::string &victim, const std::string &path) {
         fs::create_symlink(victim + "-made", path);
     }},
    {"second name", [](const std::string &victim,
                       const std::string &path) { fs::create_hard_link(victim, path); }},
    {"pipe", [](const std::string &,
                const std::string &path) { ASSERT_EQ(mkfifo(path.c_str(), 0666), 0); }},
};

class PlantedTest : public log_test {
  protected:
    void SetUp() override
    {
        write_file(victim, "precious\n");
    }
    void expect_nothing_happened(const std::string &what) const
    {
        EXPECT_EQ(read_file(victim), "precious\n") << what;
        EXPECT_FALSE(fs::exists(victim + "-made")) << what;
    }
    const std::string victim = log + "-victim"; // outside of the log
};

TEST_F(PlantedTest, UnderTheNamesOfFilesInTheMaking)
{
    for (const char *name : {"new-log-file", "new-acknowledged", "new-readers"}) {
        for (const planting &each : kinds) {
            const std::string what = name + std::string(", a ") + each.kind;
            fs::remove_all(log);
            fs::create_directory(log);
            each.plant(victim, log + "/" + name);
            written.clear();
            open_writer();
            add({insert(1)});
            ASSERT_EQ(fwu_writer_sync(writer), 0) << what;
            ASSERT_EQ(fwu_writer_acknowledge(writer), 0) << what;
            close_writer();
            if (strcmp(name, "new-readers") == 0) {
                EXPECT_EQ(fwu_readers_write(log, {"/a/reader"}), 0) << what;
            }
            expect_nothing_happened(what);
            fs::remove(status);
            const run_outcome found = run();
            EXPECT_EQ(found.result, 0) << what << found.err;
            EXPECT_EQ(found.records, written) << what;
            struct stat about = {};
            ASSERT_EQ(lstat(file(1).c_str(), &about), 0) << what;
            EXPECT_TRUE(S_ISREG(about.st_mode)) << what;
            EXPECT_EQ(about.st_nlink, 1U) << what;
        }
    }
}

TEST_F(PlantedTest, InThePlaceOfWhatWasAcknowledged)
{
    open_writer();
    add({insert(1)});
    ASSERT_EQ(fwu_writer_sync(writer), 0);
    ASSERT_EQ(fwu_writer_acknowledge(writer), 0);
    add({insert(2)});
    fs::remove(log + "/acknowledged");
    fs::create_symlink(victim, log + "/acknowledged");
    const std::string err = stderr_of([&] {
        EXPECT_EQ(fwu_writer_sync(writer), 0);
        EXPECT_EQ(fwu_writer_acknowledge(writer), -1);
    });
    EXPECT_THAT(err, HasSubstr("cannot keep what was acknowledged"));
    expect_nothing_happened("acknowledged");
}

TEST_F(PlantedTest, LinksToNothingMakeNoFileElsewhere)
{
    fs::create_directory(log);
    fs::create_symlink(victim + "-made", log + "/writer.lock");
    const std::string err = stderr_of([&] {
        fwu_writer *none = nullptr;
        EXPECT_EQ(fwu_writer_open(&none, config), -1);
    });
    EXPECT_THAT(err, HasSubstr("cannot open the writer's lock file"));
    expect_nothing_happened("writer.lock");
}

// Whoever has a name for a moment between looking and making does not get the bytes either.
TEST_F(PlantedTest, AFileInTheMakingIsNobodyElses)
{
    fs::create_directory(log);
    const std::string path = log + "/new";
    for (const planting &each : kinds) {
        each.plant(victim, path);
        const int fd = fwu_file_anew(path, O_WRONLY, 0640);
        ASSERT_GE(fd, 0) << each.kind;
        struct stat about = {};
        ASSERT_EQ(fstat(fd, &about), 0);
        EXPECT_TRUE(S_ISREG(about.st_mode)) << each.kind;
        EXPECT_EQ(about.st_mode & 07777, 0640U) << each.kind;
        EXPECT_EQ(about.st_nlink, 1U) << each.kind;
        EXPECT_EQ(fwu_write_all(fd, "x", 1, 0), 0);
        close(fd);
        expect_nothing_happened(each.kind);
        fs::remove(path);
    }
    fs::create_directory(path);
    EXPECT_EQ(fwu_file_anew(path, O_WRONLY, 0640), -1) << "what cannot be taken away is told";
}
