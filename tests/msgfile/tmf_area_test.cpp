// Locking, reading and writing of the common area, and the making of new files:
// order, results, and what is left behind when a system call fails.
#include "msgfile/tmf_area.h"
#include "msgfile/tmf_common.h"
#include "msgfile/tmf_open.h"
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <memory>

using texts = std::vector<std::string>;

class TmfArea : public MessageFile {
  protected:
    system_calls_guard guard;

    struct freer {
        void operator()(tmf_handle *h) const
        {
            tmf_free_mf(h);
        }
    };
    using bare_handle = std::unique_ptr<tmf_handle, freer>;

    // A handle of the file that has not looked at it yet.
    bare_handle bare(int mode) const
    {
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        forget_calls();
        return bare_handle(tmf_new(fd, path.c_str(), mode));
    }
};

// A way for a call to fail.
struct failure {
    const char *name;
    std::function<void()> plan;
    int code;
};

// ---- the first read

TEST_F(TmfArea, NewFileIsLockedWrittenAndLeftLocked)
{
    const bare_handle h = bare(0);
    ASSERT_EQ(tmf_ensure_common(h.get()), 0);
    EXPECT_EQ(calls_as_text(), (texts{"lseek 0", "lock 256", "read 256", "lseek 0", "write 256",
                                      "lseek 256", "write 4096"}));
    EXPECT_EQ(h->common_locked, 1);
    EXPECT_EQ(holder_of(path, 0, 256), getpid());
    EXPECT_EQ(holder_of(path, 0, 1), getpid());
    EXPECT_EQ(holder_of(path, 255, 1), getpid());
    EXPECT_EQ(holder_of(path, 256, 4096), 0);
}

TEST_F(TmfArea, FirstReadPreparesTheHandle)
{
    make({"one", "two"});
    store<int32_t>(36, 4361); // the second record is the oldest
    const bare_handle h = bare(1);
    ASSERT_EQ(tmf_ensure_common(h.get()), 0);
    EXPECT_EQ(calls_as_text(), (texts{"lseek 0", "lock 256", "read 256"}));
    EXPECT_EQ(h->common, &h->common_copy);
    EXPECT_EQ(h->record_overhead, 6);
    EXPECT_EQ(h->max_record_len, 32761);
    EXPECT_EQ(h->record_buffer_size, 1024);
    EXPECT_NE(h->record_buffer, nullptr);
    EXPECT_EQ(h->copy_offset, 4361);
    EXPECT_EQ(h->copy_count, 0);
    EXPECT_EQ(h->last_record_end, 0);
    EXPECT_EQ(h->user_id, -1);
}

// The flag in the file has no meaning, but decides whether the first release
// writes the area.
TEST_F(TmfArea, FirstReadLeavesTheDirtyFlagAsItFindsIt)
{
    make();
    for (const int flags : {1, 0}) {
        store<uint16_t>(72, static_cast<uint16_t>(flags));
        const bare_handle h = bare(0);
        ASSERT_EQ(tmf_ensure_common(h.get()), 0);
        EXPECT_EQ(h->common->flags, flags);
        forget_calls();
        EXPECT_EQ(tmf_release_common(h.get()), 0);
        EXPECT_EQ(calls_made(CALL_WRITE).size(), static_cast<size_t>(flags));
        EXPECT_EQ(h->common->flags, 0);
    }
}

TEST_F(TmfArea, NewFileThatCannotBeBegunIsLeftEmpty)
{
    const failure rows[] = {
        {"first read", [] { fail_call(CALL_READ, EIO); }, TMF_EINIT_READ},
        {"lock", [] { fail_call(CALL_LOCKF, ENOLCK); }, TMF_ELOCK_WAIT},
        {"seek for the lock", [] { fail_call(CALL_LSEEK, ESPIPE); }, TMF_EHANDLE},
        {"seek to the common area", [] { fail_call(CALL_LSEEK, EIO, 1); }, TMF_ESEEK_COMMON},
        {"seek elsewhere", [] { answer_call(CALL_LSEEK, 8, 1); }, TMF_ESEEK_COMMON_EOF},
        {"write of the common area", [] { fail_call(CALL_WRITE, ENOSPC); }, TMF_EINIT_WRITE},
        {"short write of it", [] { answer_call(CALL_WRITE, 255); }, TMF_EINIT_WRITE_EOF},
        {"write of nothing", [] { answer_call(CALL_WRITE, 0); }, TMF_EINIT_WRITE_EOF},
    };
    for (const failure &row : rows) {
        for (const int mode : {0, 1}) {
            row.plan();
            EXPECT_EQ(open(mode), nullptr) << row.name;
            EXPECT_EQ(tmf_geterrno(nullptr), row.code) << row.name;
            EXPECT_EQ(bytes(), "") << row.name;
        }
    }
    make(); // and it can be begun anew
    EXPECT_EQ(bytes().size(), 4352U);
}

TEST_F(TmfArea, LockAreaThatCannotBeWrittenFailsTheOpen)
{
    const failure rows[] = {
        {"seek", [] { fail_call(CALL_LSEEK, EIO, 2); }, TMF_ESEEK_LOCKS},
        {"seek elsewhere", [] { answer_call(CALL_LSEEK, 0, 2); }, TMF_ESEEK_LOCKS_EOF},
        {"write", [] { fail_call(CALL_WRITE, ENOSPC, 1); }, TMF_EWRITE_LOCKS},
        {"write of nothing", [] { answer_call(CALL_WRITE, 0, 1); }, TMF_EWRITE_LOCKS_EOF},
        {"write of 255 bytes", [] { answer_call(CALL_WRITE, 255, 1); }, TMF_EWRITE_LOCKS_EOF},
    };
    for (const failure &row : rows) {
        unlink(path.c_str());
        row.plan();
        EXPECT_EQ(open(1), nullptr) << row.name;
        EXPECT_EQ(tmf_geterrno(nullptr), row.code) << row.name;
        EXPECT_EQ(holder_of(path, 0, 0), 0) << row.name;
        // The common area is there, and the next user goes on with it.
        EXPECT_GE(bytes().size(), 256U) << row.name;
        EXPECT_EQ(open_elsewhere(path, 0), 0) << row.name;
    }
}

// Kept: a short write of the lock area passes from 256 bytes on.
TEST_F(TmfArea, LockAreaOf256BytesPasses)
{
    answer_call(CALL_WRITE, 256, 1);
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(bytes_through(writer).size(), 512U);
    EXPECT_EQ(tmf_fwrite(writer, "x", 1), 0);
    EXPECT_EQ(bytes_through(writer).size(), 4361U);
    EXPECT_EQ(tmf_fclose(writer), 0);
}

TEST_F(TmfArea, ErrorOfTheFirstReadUnlocks)
{
    make();
    const failure rows[] = {
        {"read", [] { fail_call(CALL_READ, EIO); }, TMF_EINIT_READ},
        {"memory", [] { fail_call(CALL_MALLOC, ENOMEM); }, TMF_EINTERNAL},
    };
    for (const failure &row : rows) {
        const bare_handle h = bare(0);
        row.plan();
        EXPECT_EQ(tmf_ensure_common(h.get()), row.code) << row.name;
        EXPECT_EQ(h->common_locked, 0) << row.name;
        EXPECT_EQ(holder_of(path, 0, 256), 0) << row.name;
    }
    store<int16_t>(74, 3);
    const bare_handle h = bare(0);
    EXPECT_EQ(tmf_ensure_common(h.get()), TMF_EFORMAT);
    EXPECT_EQ(holder_of(path, 0, 256), 0);
}

// ---- get

TEST_F(TmfArea, GetLocksSeeksReadsAndClearsTheDirtyFlag)
{
    make();
    const bare_handle h = bare(0);
    ASSERT_EQ(tmf_ensure_common(h.get()), 0);
    ASSERT_EQ(tmf_release_common(h.get()), 0); // wrote the flag
    forget_calls();
    ASSERT_EQ(tmf_get_common(h.get()), 0);
    EXPECT_EQ(calls_as_text(), (texts{"lseek 0", "lock 256", "lseek 0", "read 256"}));
    EXPECT_EQ(bytes_through(h.get())[72], 1);
    EXPECT_EQ(h->common->flags, 0);
    EXPECT_EQ(h->common_locked, 1);
    EXPECT_EQ(holder_of(path, 0, 256), getpid());
    forget_calls();
    EXPECT_EQ(tmf_release_common(h.get()), 0);
    EXPECT_EQ(calls_as_text(), (texts{"lseek 0", "unlock 256"}));
    EXPECT_EQ(h->common_locked, 0);
    EXPECT_EQ(holder_of(path, 0, 256), 0);
}

// Beyond the first code, each row's read is made all the same.
TEST_F(TmfArea, FailedGetLeavesTheAreaUnlockedAndTheHandleUsable)
{
    make({"one"});
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    const auto seek_fails = [] { fail_call(CALL_LSEEK, EIO, 1); };
    const auto seek_strays = [] { answer_call(CALL_LSEEK, 8, 1); };
    const auto read_fails = [] { fail_call(CALL_READ, EIO); };
    const auto read_short = [] { answer_call(CALL_READ, 255); };
    const struct {
        failure what;
        size_t reads;
    } rows[] = {
        {{"lock", [] { fail_call(CALL_LOCKF, ENOLCK); }, TMF_ELOCK_WAIT}, 0},
        {{"seek for the lock", [] { fail_call(CALL_LSEEK, EBADF); }, TMF_EHANDLE}, 0},
        {{"seek", seek_fails, TMF_ESEEK_COMMON}, 1},
        {{"seek elsewhere", seek_strays, TMF_ESEEK_COMMON_EOF}, 1},
        {{"read", read_fails, TMF_EREAD_COMMON}, 1},
        {{"short read", read_short, TMF_EREAD_COMMON_EOF}, 1},
        {{"read of nothing", [] { answer_call(CALL_READ, 0); }, TMF_EREAD_COMMON_EOF}, 1},
        {{"seek and read",
          [&] {
              seek_fails();
              read_fails();
          },
          TMF_EREAD_COMMON},
         1},
        {{"seek elsewhere and short read",
          [&] {
              seek_strays();
              read_short();
          },
          TMF_EREAD_COMMON_EOF},
         1},
    };
    for (const auto &row : rows) {
        forget_calls();
        row.what.plan();
        int records = -1;
        EXPECT_EQ(tmf_getinfo(writer, 1, &records, 0), row.what.code) << row.what.name;
        EXPECT_EQ(records, -1) << row.what.name;
        EXPECT_EQ(calls_made(CALL_READ).size(), row.reads) << row.what.name;
        EXPECT_EQ(holder_of(path, 0, 256), 0) << row.what.name;
        EXPECT_EQ(tmf_getinfo(writer, 1, &records, 0), 0) << row.what.name;
        EXPECT_EQ(records, 1) << row.what.name;
    }
    EXPECT_EQ(tmf_geterrno(writer), 0); // tmf_getinfo keeps no code
    EXPECT_EQ(tmf_fclose(writer), 0);
}

TEST_F(TmfArea, FailedGetOfAProvenHandleHasTheSameCodes)
{
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    ASSERT_EQ(tmf_fwrite(writer, "x", 1), 0);
    const failure rows[] = {
        {"lock", [] { fail_call(CALL_FCNTL, ENOLCK); }, TMF_ELOCK_WAIT},
        {"bad descriptor", [] { fail_call(CALL_FCNTL, EBADF); }, TMF_EHANDLE},
        {"read", [] { fail_call(CALL_PREAD, EIO); }, TMF_EREAD_COMMON},
        {"short read", [] { answer_call(CALL_PREAD, 255); }, TMF_EREAD_COMMON_EOF},
    };
    for (const failure &row : rows) {
        row.plan();
        EXPECT_EQ(tmf_fwrite(writer, "x", 1), row.code) << row.name;
        EXPECT_EQ(tmf_geterrno(writer), row.code) << row.name;
        EXPECT_EQ(holder_of(path, 0, 256), 0) << row.name;
        EXPECT_EQ(tmf_getinfo(writer, 0), 0) << row.name;
    }
    EXPECT_EQ(tmf_fclose(writer), 0);
}

// Another program may have written over the file since it was opened.
TEST_F(TmfArea, AreaThatIsNoneAnyMoreIsRefused)
{
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    const std::string good = bytes_through(writer).substr(0, 256);
    const struct {
        off_t at;
        std::string bytes;
        int code;
    } rows[] = {
        {4, "text", TMF_ENOTMSG},
        {0, std::string(256, '\0'), TMF_ENOTMSG},
        {0, good.substr(1, 1) + good.substr(0, 1), TMF_EINCOMPATIBLE}, // the other byte order
        {0, "\x34\x12", TMF_EINCOMPATIBLE},
    };
    for (const auto &row : rows) {
        const auto length = static_cast<ssize_t>(row.bytes.size());
        ASSERT_EQ(pwrite(writer->fd, row.bytes.data(), row.bytes.size(), row.at), length);
        const std::string before = bytes_through(writer);
        EXPECT_EQ(tmf_fwrite(writer, "x", 1), row.code);
        EXPECT_EQ(tmf_getinfo(writer, 0), row.code);
        EXPECT_SAME_BYTES(bytes_through(writer), before);
        EXPECT_EQ(writer->common->byte_order_mark, 0xFEFF); // the copy is the last good one
        EXPECT_EQ(std::string(writer->common->magic, 4), "TM01");
        EXPECT_EQ(holder_of(path, 0, 256), 0);
        ASSERT_EQ(pwrite(writer->fd, good.data(), 256, 0), 256);
    }
    EXPECT_EQ(tmf_fwrite(writer, "x", 1), 0);
    EXPECT_EQ(tmf_fclose(writer), 0);
}

// ---- release

TEST_F(TmfArea, ReleaseWritesADirtyAreaWithItsFlagAndUnlocks)
{
    make();
    const bare_handle h = bare(0);
    ASSERT_EQ(tmf_ensure_common(h.get()), 0);
    h->common->record_count = 5;
    tmfc_set_dirty(h->common, 1);
    forget_calls();
    EXPECT_EQ(tmf_release_common(h.get()), 0);
    EXPECT_EQ(calls_as_text(), (texts{"lseek 0", "write 256", "lseek 0", "unlock 256"}));
    EXPECT_EQ(h->common->flags, 0);
    const std::string file = bytes_through(h.get());
    EXPECT_EQ(number_at<uint16_t>(file, 72), 1);
    EXPECT_EQ(number_at<int32_t>(file, 16), 5);
}

TEST_F(TmfArea, ReleaseWithoutTheLockWritesNothing)
{
    make();
    const bare_handle h = bare(0);
    ASSERT_EQ(tmf_ensure_common(h.get()), 0);
    ASSERT_EQ(tmf_release_common(h.get()), 0);
    forget_calls();
    EXPECT_EQ(tmf_release_common(h.get()), 0);
    tmfc_set_dirty(h->common, 1);
    EXPECT_EQ(tmf_release_common(h.get()), TMF_EINTERNAL);
    EXPECT_EQ(tmfc_is_dirty(h->common), true);
    EXPECT_TRUE(calls_made().empty());
}

TEST_F(TmfArea, FailedReleaseUnlocksAndTheWritesErrorComesFirst)
{
    make();
    const auto write_fails = [] { fail_call(CALL_WRITE, ENOSPC); };
    const auto unlock_fails = [] { fail_call(CALL_LOCKF, ENOLCK); };
    const struct {
        failure what;
        bool unlocked;
    } rows[] = {
        {{"seek", [] { fail_call(CALL_LSEEK, EIO); }, TMF_ESEEK_COMMON}, true},
        {{"seek elsewhere", [] { answer_call(CALL_LSEEK, 8); }, TMF_ESEEK_COMMON_EOF}, true},
        {{"write", write_fails, TMF_EWRITE_COMMON}, true},
        {{"short write", [] { answer_call(CALL_WRITE, 255); }, TMF_EWRITE_COMMON_EOF}, true},
        {{"unlock", unlock_fails, TMF_EUNLOCK}, false},
        {{"seek for the unlock", [] { fail_call(CALL_LSEEK, EIO, 1); }, TMF_EHANDLE}, false},
        {{"write and unlock",
          [&] {
              write_fails();
              unlock_fails();
          },
          TMF_EWRITE_COMMON},
         false},
    };
    for (const auto &row : rows) {
        const bare_handle h = bare(0);
        ASSERT_EQ(tmf_ensure_common(h.get()), 0);
        tmfc_set_dirty(h->common, 1);
        row.what.plan();
        EXPECT_EQ(tmf_release_common(h.get()), row.what.code) << row.what.name;
        EXPECT_EQ(h->common_locked, 0) << row.what.name;
        EXPECT_FALSE(tmfc_is_dirty(h->common)) << row.what.name;
        EXPECT_EQ(holder_of(path, 0, 256), row.unlocked ? 0 : getpid()) << row.what.name;
    }
}

TEST_F(TmfArea, FailedReleaseOfAProvenHandleHasTheSameCodes)
{
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    ASSERT_EQ(tmf_fwrite(writer, "x", 1), 0);
    const failure rows[] = {
        {"write", [] { fail_call(CALL_PWRITE, ENOSPC, 1); }, TMF_EWRITE_COMMON},
        {"short write", [] { answer_call(CALL_PWRITE, 255, 1); }, TMF_EWRITE_COMMON_EOF},
        {"unlock", [] { fail_call(CALL_FCNTL, ENOLCK, 1); }, TMF_EUNLOCK},
    };
    for (const failure &row : rows) {
        row.plan();
        EXPECT_EQ(tmf_fwrite(writer, "x", 1), row.code) << row.name;
        EXPECT_EQ(tmf_getinfo(writer, 0), 0) << row.name;
        EXPECT_EQ(holder_of(path, 0, 256), 0) << row.name;
    }
    EXPECT_EQ(tmf_fclose(writer), 0);
}

// ---- system calls of an operation

TEST_F(TmfArea, FirstOperationOfAHandleSeeks)
{
    make({"one"});
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    forget_calls();
    EXPECT_EQ(tmf_fwrite(writer, "0123456789", 10), 0);
    texts calls = calls_as_text();
    ASSERT_GT(calls.size(), 6U);
    calls.resize(6);
    EXPECT_EQ(calls,
              (texts{"lseek 0", "lock 256", "lseek 0", "read 256", "lseek 4361", "write 18"}));
    EXPECT_EQ(tmf_fclose(writer), 0);

    tmf_handle *reader = open(1);
    ASSERT_NE(reader, nullptr);
    forget_calls();
    char buf[20];
    EXPECT_EQ(tmf_fread(reader, buf, 20, 0), 3);
    calls = calls_as_text();
    ASSERT_GT(calls.size(), 6U);
    calls.resize(6);
    EXPECT_EQ(calls,
              (texts{"lseek 0", "lock 256", "lseek 0", "read 256", "lseek 4352", "read 26"}));
    EXPECT_EQ(tmf_fclose(reader), 0);
}

TEST_F(TmfArea, LaterRecordsTakeFiveSystemCallsEach)
{
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    ASSERT_EQ(tmf_fwrite(writer, "one", 3), 0);
    forget_calls();
    EXPECT_EQ(tmf_fwrite(writer, "0123456789", 10), 0);
    EXPECT_EQ(calls_as_text(), (texts{"setlkw 0", "pread 256 at 0", "pwrite 18 at 4361",
                                      "pwrite 256 at 0", "setlk 0"}));
    ASSERT_EQ(tmf_fwrite(writer, "three", 5), 0);
    EXPECT_EQ(tmf_fclose(writer), 0);

    tmf_handle *reader = open(1);
    ASSERT_NE(reader, nullptr);
    char buf[20];
    ASSERT_EQ(tmf_fread(reader, buf, 20, 0), 3);
    forget_calls();
    EXPECT_EQ(tmf_fread(reader, buf, 20, TMF_READ_KEEP), 10);
    EXPECT_EQ(calls_as_text(),
              (texts{"setlkw 0", "pread 256 at 0", "pread 26 at 4361", "setlk 0"}));
    forget_calls();
    EXPECT_EQ(tmf_fread(reader, buf, 20, 0), 10);
    EXPECT_EQ(calls_as_text(), (texts{"setlkw 0", "pread 256 at 0", "pread 26 at 4361",
                                      "pwrite 256 at 0", "setlk 0"}));
    EXPECT_EQ(tmf_fclose(reader), 0);
}

TEST_F(TmfArea, SlotsOfAProvenHandleNameTheirPlaceToo)
{
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    ASSERT_EQ(tmf_fwrite(writer, "one", 3), 0);
    forget_calls();
    EXPECT_EQ(tmf_fclose(writer), 0);
    EXPECT_EQ(calls_as_text(), (texts{"setlkw 0", "pread 256 at 0", "pwrite 4 at 320", "setlk 320",
                                      "pwrite 256 at 0", "setlk 0"}));
    expect_nobody();
}
