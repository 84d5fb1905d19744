// Changes that wait, in memory and in a file: what comes out is what went in, in its order.
#include "feed/postgresql/spool.h"

#include "tests/support/tempdir.h"

#include <csignal>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <iostream>
#include <random>
#include <sys/resource.h>
#include <unistd.h>

static std::string stderr_of(const std::function<void()> &statement)
{
    testing::internal::CaptureStderr();
    statement();
    return testing::internal::GetCapturedStderr();
}

struct waiting {
    std::string bytes;
    pgb_sides sides;
};

class SpoolTest : public testing::Test {
  protected:
    ~SpoolTest() override
    {
        pgi_spool_end(spool);
    }

    void add(std::string bytes, pgb_sides sides = {})
    {
        ASSERT_TRUE(pgi_spool_add(spool, dir.path(), bytes, sides));
        added.push_back({.bytes = std::move(bytes), .sides = sides});
    }

    void expect_all() const
    {
        pgi_spool_reader reader;
        std::string_view bytes;
        pgb_sides sides;
        bool more = true;
        for (size_t i = 0; i <= added.size(); i++) {
            ASSERT_TRUE(pgi_spool_next(more, bytes, sides, reader, spool, dir.path()));
            ASSERT_EQ(more, i < added.size()) << i;
            if (!more)
                return;
            ASSERT_TRUE(bytes == added[i].bytes) << i;
            EXPECT_EQ(sides.old, added[i].sides.old) << i;
            EXPECT_EQ(sides.fresh, added[i].sides.fresh) << i;
        }
    }

    bool directory_is_empty() const
    {
        return std::filesystem::is_empty(dir.path());
    }

    tempdir dir;
    pgi_spool spool;
    std::vector<waiting> added;
};

TEST_F(SpoolTest, NothingIsInANewOne)
{
    EXPECT_EQ(pgi_spool_size(spool), 0U);
    expect_all();
}

TEST_F(SpoolTest, FewChangesStayInMemory)
{
    add("one", {.old = true, .fresh = false});
    add("", {.old = false, .fresh = true});
    add(std::string("t\0o", 3), {.old = false, .fresh = false});
    expect_all();
    EXPECT_EQ(pgi_spool_size(spool), 3U * 9 + 6);
    EXPECT_EQ(spool.file.fd, -1);
    pgi_spool_end(spool);
    added.clear();
    EXPECT_EQ(pgi_spool_size(spool), 0U);
    expect_all();
}

TEST_F(SpoolTest, ManyChangesGoToAFileWithoutAName)
{
    for (int i = 0; i < 100; i++)
        add(std::string(200'000, static_cast<char>('a' + i % 26)), {.old = i % 2 == 0});
    EXPECT_EQ(pgi_spool_size(spool), 100U * 200'009);
    EXPECT_GE(spool.file.size, 8'000'000);
    EXPECT_LE(spool.memory.size(), PGI_SPOOL_MEMORY);
    EXPECT_TRUE(directory_is_empty());
    expect_all();
    expect_all(); // as often as one likes
    pgi_spool_end(spool);
    EXPECT_EQ(pgi_spool_size(spool), 0U);
    EXPECT_EQ(spool.file.fd, -1);
}

// One that is longer than memory may take stands in its place all the same.
TEST_F(SpoolTest, ALongChangeIsNotKeptInMemory)
{
    add("before");
    add(std::string(PGI_SPOOL_MEMORY, 'x'));
    add(std::string(PGI_SPOOL_MEMORY + 1, 'y'));
    EXPECT_EQ(spool.memory.size(), 0U);
    add("behind");
    expect_all();
}

TEST_F(SpoolTest, ChangesOfAllLengths)
{
    const char *given = getenv("KESTRO_TEST_SEED");
    const auto seed = given != nullptr ? static_cast<unsigned>(strtoul(given, nullptr, 10))
                                       : std::random_device{}();
    std::cout << "KESTRO_TEST_SEED=" << seed << "\n";
    std::mt19937 random(seed);
    for (int i = 0; i < 400; i++) {
        const size_t length = random() % (1U << random() % 21);
        add(std::string(length, static_cast<char>(random())),
            {.old = random() % 2 == 0, .fresh = random() % 2 == 0});
        if (i % 97 == 0)
            expect_all();
    }
    expect_all();
}

TEST_F(SpoolTest, AFailureIsNamed)
{
    const std::string of = "changes that belong behind a table's rows: ";
    const std::string missing = dir.file("none");
    add("one");
    const std::string nowhere = stderr_of([&] {
        EXPECT_EQ(pgi_spool_add(spool, missing, std::string(PGI_SPOOL_MEMORY, 'x'), {}).kind(),
                  OUTCOME_FAILED);
    });
    EXPECT_THAT(nowhere, testing::MatchesRegex("fwutil: " + missing +
                                               "/spill-......: cannot create a spill file for " +
                                               of + "No such file or directory\n"));
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small = {.rlim_cur = 1 << 20, .rlim_max = before.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const std::string full = stderr_of([&] {
        EXPECT_EQ(
            pgi_spool_add(spool, dir.path(), std::string(PGI_SPOOL_MEMORY + 1, 'x'), {}).kind(),
            OUTCOME_FAILED);
    });
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(full, "fwutil: " + dir.path() + ": cannot write to the spill file of " + of +
                        "File too large\n");
    pgi_spool_end(spool);
    added.clear();
    add(std::string(PGI_SPOOL_MEMORY + 1, 'x'));
    ASSERT_EQ(ftruncate(spool.file.fd, 100), 0);
    pgi_spool_reader reader;
    std::string_view bytes;
    pgb_sides sides;
    bool more = false;
    EXPECT_EQ(stderr_of([&] {
                  EXPECT_EQ(pgi_spool_next(more, bytes, sides, reader, spool, "the-log").kind(),
                            OUTCOME_FAILED);
              }),
              "fwutil: the-log: cannot read back the spill file of " + of +
                  "it has become shorter\n");
}
