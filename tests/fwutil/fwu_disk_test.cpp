// A full or failing disk at each system call of a load: the writer stops with an
// error, the log stays whole, and the same load run again makes it what it would
// have been.
#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_log.h"
#include "tests/fwutil/log_fixture.h"
#include "tests/fwutil/system_calls.h"

#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <map>

struct load_outcome {
    bool done = false;
    uint64_t committed = 0; // position of the last commit that the writer took
    std::string err;
};

class DiskTest : public log_test {
  protected:
    DiskTest()
    {
        config.log_file_size = 700;
        calls.clock_us = 1700000000000000; // so that file headers are equal
        calls.random_from = 1;
        calls.monotonic_ms = 1'000'000;
        calls.skip_syncs = true; // their time, not their failures
        for (int n = 1; n <= 8; n++)
            stream.push_back({insert(n), update(n)});
    }

    // Appends the stream's transactions that the log does not have yet; stops at the
    // first error.
    load_outcome load(size_t transactions = SIZE_MAX)
    {
        load_outcome outcome;
        outcome.err = stderr_of([&] {
            if (fwu_writer_open(&writer, config) != 0)
                return;
            outcome.done = true;
            for (size_t n = 0; n < std::min(transactions, stream.size()) && outcome.done; n++)
                if (n + 1 > fwu_writer_last_lsn(writer))
                    outcome.done = append(n);
            outcome.committed = fwu_writer_last_lsn(writer);
            if (fwu_writer_close(writer) != 0)
                outcome.done = false;
            writer = nullptr;
        });
        return outcome;
    }

    bool append(size_t n)
    {
        if (fwu_writer_begin(writer, nullptr) != 0)
            return false;
        for (const seen &change : stream[n])
            if (put(change, change.after.size() > 100 ? 1 : 0) != 0)
                return false;
        if (fwu_writer_commit(writer, {0, n + 1, n + 1}) != 0)
            return false;
        calls.monotonic_ms += 1000; // so that each commit is brought to disk
        return fwu_writer_settle(writer, true) == 0;
    }

    // All files in the log directory that have the same bytes whatever went wrong.
    std::map<std::string, std::string> everything() const
    {
        std::map<std::string, std::string> files;
        for (const auto &entry : std::filesystem::directory_iterator(log)) {
            const std::string name = entry.path().filename();
            if (name.starts_with("cut-") || name == FWU_ACK_NAME)
                continue;
            std::string &bytes = files[name];
            bytes.resize(entry.file_size());
            std::ifstream(entry.path(), std::ios::binary)
                .read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        }
        return files;
    }

    // Positions of the commits in the log; the log must be sound.
    std::vector<uint64_t> commits_there() const
    {
        std::vector<uint64_t> found;
        fwu_commit_entry commit;
        EXPECT_EQ(stderr_of([&] {
                      EXPECT_EQ(fwu_log_walk(log,
                                             [&](const fwu_walk_item &item) {
                                                 if (item.what == FWU_WALK_ENTRY &&
                                                     fwu_entry_commit(item.entry, commit))
                                                     found.push_back(commit.commit.lsn);
                                                 return 0;
                                             }),
                                0);
                  }),
                  "");
        return found;
    }

    void fail(int from, int to, int code)
    {
        calls.numbered = 0;
        calls.failures = 0;
        calls.fail_from = from;
        calls.fail_to = to;
        calls.fail_errno = code;
    }

    // Makes calls fail in turn, prepared by arm(number); expects each load to stop
    // there and the next one to complete the log.  Returns how many calls failed.
    int fail_each(const std::function<void(int)> &arm, const std::function<void()> &prepare)
    {
        std::filesystem::remove_all(log);
        EXPECT_TRUE(load().done);
        const auto expected = everything();
        for (int number = 1;; number++) {
            SCOPED_TRACE("call " + std::to_string(number));
            std::filesystem::remove_all(log);
            prepare();
            arm(number);
            const load_outcome broken = load();
            const bool reached = calls.numbered >= number;
            // That what is cut off could not be kept stops nothing.
            const bool told =
                broken.err.find(": cannot keep what is cut off: ") != std::string::npos;
            EXPECT_EQ(broken.done, calls.failures == 0 || (told && broken.done)) << broken.err;
            fail(0, 0, 0);
            calls.fail_writes = calls.fail_short = false;
            if (!reached)
                return number - 1;
            const std::vector<uint64_t> there = commits_there();
            EXPECT_GE(there.size(), broken.committed);
            for (size_t i = 0; i < there.size(); i++)
                EXPECT_EQ(there[i], i + 1);
            if (!broken.done) {
                EXPECT_THAT(broken.err, testing::StartsWith("fwutil: " + log));
                EXPECT_THAT(broken.err, testing::EndsWith("\n"));
            }
            const load_outcome again = load();
            EXPECT_TRUE(again.done) << again.err;
            EXPECT_TRUE(everything() == expected);
            if (HasFailure())
                return -1;
        }
    }

    std::vector<std::vector<seen>> stream; // transaction n has source position n + 1
    const system_calls_guard guard;
};

static void nothing()
{
}

TEST_F(DiskTest, AFullDiskAtAnyWrite)
{
    const int writes = fail_each(
        [&](int number) {
            fail(number, INT32_MAX, ENOSPC);
            calls.fail_writes = true;
        },
        nothing);
    // Eight transactions, one write each, in four files, and what else is numbered.
    EXPECT_GT(writes, 12);
}

TEST_F(DiskTest, AFullDiskInTheMiddleOfAnyWrite)
{
    EXPECT_GT(fail_each(
                  [&](int number) {
                      fail(number, INT32_MAX, ENOSPC);
                      calls.fail_writes = calls.fail_short = true;
                  },
                  nothing),
              12);
}

TEST_F(DiskTest, AnyCallThatFailsOnce)
{
    for (const int code : {EIO, ENOSPC, EDQUOT})
        EXPECT_GT(fail_each([&](int number) { fail(number, number, code); }, nothing), 12);
}

TEST_F(DiskTest, ADiskThatIsGoneFromAnyCallOn)
{
    EXPECT_GT(fail_each([&](int number) { fail(number, INT32_MAX, EIO); }, nothing), 12);
}

TEST_F(DiskTest, AnyCallThatFailsWhileATornTailIsCutOff)
{
    const auto tear = [&] {
        ASSERT_TRUE(load(3).done);
        write_file(file(2), log_file_bytes(2) + "the rest of a transaction");
    };
    EXPECT_GT(fail_each([&](int number) { fail(number, number, EIO); }, tear), 10);
    EXPECT_GT(fail_each([&](int number) { fail(number, INT32_MAX, EIO); }, tear), 10);
}

// A transaction that is collected in a spill file.
class SpillTest : public DiskTest {
  protected:
    SpillTest()
    {
        configure("log-file-size 4K\nbyte-order little\ndatabase SALES\n"
                  "dataset ORDERS\nitem NO I 4\nitem TEXT X 12\n"
                  "dataset NOTES\nitem TEXT X 30000\n");
        const seen note{"SALES", "NOTES", 1, FWU_OP_INSERT, 0, "", std::string(30000, 'n')};
        stream = {{insert(1)}, std::vector<seen>(300, note), {insert(2)}};
    }
};

TEST_F(SpillTest, AFullDiskInTheMiddleOfAnyWrite)
{
    EXPECT_GT(fail_each(
                  [&](int number) {
                      fail(number, INT32_MAX, ENOSPC);
                      calls.fail_writes = calls.fail_short = true;
                  },
                  nothing),
              12);
}

TEST_F(SpillTest, AnyCallThatFailsOnce)
{
    EXPECT_GT(fail_each([&](int number) { fail(number, number, EIO); }, nothing), 12);
}

TEST_F(SpillTest, EachFailureIsNamed)
{
    // Ten calls belong to the first transaction.
    const std::vector<std::pair<int, std::string>> cases = {
        {11, log + "/spill-XXXXXX: cannot create a spill file for a large transaction"},
        {12, log + ": cannot write to the spill file of a large transaction"},
        {13, file(1) + ": cannot read back the spill file of a large transaction"},
        {14, file(1) + ": cannot write to the log file"},
    };
    for (const auto &[number, message] : cases) {
        std::filesystem::remove_all(log);
        fail(number, number, EIO);
        EXPECT_EQ(load().err, "fwutil: " + message + ": Input/output error\n");
        EXPECT_EQ(commits_there(), std::vector<uint64_t>{1});
    }
}

// The messages, and what is left, call by call.
TEST_F(DiskTest, EachFailureIsNamed)
{
    const std::string new_file = log + "/fw0001-00000001.log";
    const std::string acknowledged =
        log + "/acknowledged: cannot create the file of what was acknowledged: ";
    const std::vector<std::pair<int, std::string>> cases = {
        {1, new_file + ": cannot create the log file: Input/output error\n"}, // its header
        {2, new_file + ": cannot bring the log file to disk: Input/output error\n"},
        {3, acknowledged + "Input/output error\n"}, // its text
        {4, acknowledged + "Input/output error\n"}, // brought to disk
        {5, acknowledged + "Input/output error\n"}, // its name
        {6, log + ": cannot bring the log directory to disk: Input/output error\n"},
        {7, new_file + ": cannot create the log file: Input/output error\n"}, // its name
        {8, new_file + ": cannot write to the log file: Input/output error\n"},
        {9, new_file + ": cannot bring the log file to disk: Input/output error\n"},
        {10, log + ": cannot bring the log directory to disk: Input/output error\n"},
    };
    for (const auto &[number, message] : cases) {
        std::filesystem::remove_all(log);
        fail(number, number, EIO);
        EXPECT_EQ(load(1).err, "fwutil: " + message);
        EXPECT_EQ(std::filesystem::exists(log + "/new-log-file"), false);
    }
    std::filesystem::remove_all(log);
    ASSERT_TRUE(load(1).done);
    write_file(file(1), log_file_bytes(1) + "torn");
    const std::string cut = "fwutil: " + file(1) + ": cut 4 bytes behind offset " +
                            std::to_string(log_file_bytes(1).size() - 4) +
                            ": the rest of a transaction that was not finished\n";
    calls.fail_ftruncate = true;
    EXPECT_EQ(load().err, cut + "fwutil: " + file(1) +
                              ": cannot cut the log file back to its last transaction: "
                              "Input/output error\n");
    calls.fail_ftruncate = false;
    EXPECT_EQ(load().err, cut);
}

TEST_F(DiskTest, ASyncThatFailsBeforeTheNextFileStopsTheWriter)
{
    config.log_file_size = 1;
    open_writer();
    add({insert(1)});
    ASSERT_EQ(fwu_writer_begin(writer, nullptr), 0);
    ASSERT_EQ(put(insert(2)), 0);
    calls.fail_fdatasync = true;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(commit(), -1); }),
              "fwutil: " + file(1) + ": cannot bring the log file to disk: Input/output error\n");
    calls.fail_fdatasync = false;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fwu_writer_settle(writer, false), -1); }),
              "fwutil: " + file(1) +
                  ": the log file could not be brought to disk before; start anew\n");
    EXPECT_EQ(fwu_writer_logged_lsn(writer), 0U);
}
