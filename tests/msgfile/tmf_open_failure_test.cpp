// Opens and closes that fail: the code, and what is left in the file, of locks
// and of descriptors.
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>

class TmfOpenFailure : public MessageFile {
  protected:
    system_calls_guard guard;

    // Opens and expects failure with a code.
    void refuses(int mode, int code, const char *name) const
    {
        EXPECT_EQ(open(mode), nullptr) << name;
        EXPECT_EQ(tmf_geterrno(nullptr), code) << name;
    }
};

TEST_F(TmfOpenFailure, SystemsRefusalIsGivenInWords)
{
    const struct {
        const char *name;
        std::string path;
        int os_errno;
    } rows[] = {
        {"missing directory", dir.file("missing/queue"), ENOENT},
        {"directory", dir.path(), EISDIR},
        {"file as directory", dir.file("file/queue"), ENOTDIR},
        {"long name", dir.file(std::string(300, 'q')), ENAMETOOLONG},
    };
    write_file(dir.file("file"), "x");
    for (const auto &row : rows) {
        for (const int mode : {0, 1, 8}) {
            EXPECT_EQ(tmf_fopen(row.path.c_str(), mode), nullptr) << row.name;
            EXPECT_EQ(tmf_geterrno(nullptr), TMF_EOPEN) << row.name;
            EXPECT_EQ(message_of(nullptr),
                      "Error opening file: " + std::string(strerror(row.os_errno)));
        }
    }
}

TEST_F(TmfOpenFailure, DevicesAreNoMessageFiles)
{
    const struct {
        const char *device;
        int code;
    } rows[] = {
        {"/dev/null", TMF_ESEEK_LOCKS_EOF}, // empty, and every seek ends at its beginning
        {"/dev/full", TMF_ENOTMSG},
        {"/dev/zero", TMF_ENOTMSG},
    };
    for (const auto &row : rows) {
        for (const int mode : {0, 1, 7}) {
            EXPECT_EQ(tmf_fopen(row.device, mode), nullptr) << row.device;
            EXPECT_EQ(tmf_geterrno(nullptr), row.code) << row.device;
        }
    }
}

TEST_F(TmfOpenFailure, OutOfMemoryLeavesTheFileAsItWas)
{
    make({"one"});
    const std::string before = bytes();
    const size_t descriptors = open_descriptors();
    const struct {
        call_kind kind;
        int code;
        std::string text;
    } rows[] = {
        {CALL_CALLOC, TMF_EOPEN, "Error opening file: " + std::string(strerror(ENOMEM))},
        {CALL_STRDUP, TMF_EOPEN, "Error opening file: " + std::string(strerror(ENOMEM))},
        {CALL_MALLOC, TMF_EINTERNAL, "Internal error."},
    };
    for (const auto &row : rows) {
        for (const int mode : {0, 1}) {
            fail_call(row.kind, ENOMEM);
            refuses(mode, row.code, row.text.c_str());
            EXPECT_EQ(message_of(nullptr), row.text);
            EXPECT_SAME_BYTES(bytes(), before);
            EXPECT_EQ(open_descriptors(), descriptors);
        }
    }
    EXPECT_EQ(open_elsewhere(path, 0), 0);
}

// A registration that was written and then failed stays until the next purge.
TEST_F(TmfOpenFailure, FailedOpenFreesAllButARegistrationAlreadyWritten)
{
    const struct {
        const char *name;
        void (*plan)();
        int reader;
        int writer;
        bool stays;
    } rows[] = {
        {"seek for the lock", [] { fail_call(CALL_LSEEK, EIO); }, TMF_EHANDLE, TMF_EHANDLE, false},
        {"lock", [] { fail_call(CALL_LOCKF, ENOLCK); }, TMF_ELOCK_WAIT, TMF_ELOCK_WAIT, false},
        {"read", [] { fail_call(CALL_READ, EIO); }, TMF_EINIT_READ, TMF_EINIT_READ, false},
        {"seek for the slot lock", [] { fail_call(CALL_LSEEK, EIO, 1); }, TMF_EHANDLE, TMF_EHANDLE,
         true},
        {"slot lock", [] { fail_call(CALL_LOCKF, ENOLCK, 1); }, TMF_ELOCK_NOWAIT, TMF_ELOCK_NOWAIT,
         true},
        {"seek to the slot", [] { fail_call(CALL_LSEEK, EIO, 2); }, TMF_ESEEK_READER,
         TMF_ESEEK_WRITER, true},
        {"seek elsewhere", [] { answer_call(CALL_LSEEK, 0, 2); }, TMF_ESEEK_READER,
         TMF_ESEEK_WRITER, true},
        {"slot write", [] { fail_call(CALL_WRITE, EIO); }, TMF_EWRITE_READER, TMF_EWRITE_WRITER,
         true},
        {"short slot write", [] { answer_call(CALL_WRITE, 3); }, TMF_EWRITE_READER_EOF,
         TMF_EWRITE_WRITER_EOF, true},
        {"seek of the release", [] { fail_call(CALL_LSEEK, EIO, 3); }, TMF_ESEEK_COMMON,
         TMF_ESEEK_COMMON, false},
        {"release elsewhere", [] { answer_call(CALL_LSEEK, 8, 3); }, TMF_ESEEK_COMMON_EOF,
         TMF_ESEEK_COMMON_EOF, false},
        {"write", [] { fail_call(CALL_WRITE, ENOSPC, 1); }, TMF_EWRITE_COMMON, TMF_EWRITE_COMMON,
         false},
        {"short write", [] { answer_call(CALL_WRITE, 255, 1); }, TMF_EWRITE_COMMON_EOF,
         TMF_EWRITE_COMMON_EOF, true},
        {"seek for the unlock", [] { fail_call(CALL_LSEEK, EIO, 4); }, TMF_EHANDLE, TMF_EHANDLE,
         true},
        {"unlock", [] { fail_call(CALL_LOCKF, ENOLCK, 2); }, TMF_EUNLOCK, TMF_EUNLOCK, true},
    };
    make();
    const size_t descriptors = open_descriptors();
    for (const auto &row : rows) {
        for (const int mode : {0, 1}) {
            SCOPED_TRACE(row.name + std::string(mode == 1 ? ", reader" : ", writer"));
            row.plan();
            refuses(mode, mode == 1 ? row.reader : row.writer, row.name);
            EXPECT_EQ(stored<int16_t>(mode == 1 ? 68 : 70), row.stays ? 1 : 0);
            EXPECT_EQ(bytes()[mode == 1 ? 126 : 128], row.stays ? 1 : 0);
            EXPECT_EQ(slot(mode == 1 ? 0 : 16), 0);
            EXPECT_EQ(holder_of(path, 0, 0), 0);
            EXPECT_EQ(open_descriptors(), descriptors);
            EXPECT_EQ(open_elsewhere(path, 1 - mode), 0);
            expect_nobody();
        }
    }
}

TEST_F(TmfOpenFailure, NoFreeBitThoughTheCountAllowsItIsAnInternalError)
{
    make();
    std::string file = bytes();
    put_number<int16_t>(file, 64, 2); // the file has two reader slots
    put_number<int16_t>(file, 68, 2);
    file[126] = 3;
    write_file(path, file);
    const lock_holder alive(path, 256, 8);
    refuses(1, TMF_EINTERNAL, "all slots taken");
    EXPECT_EQ(message_of(nullptr), "Internal error.");
    EXPECT_EQ(stored<int16_t>(68), 2);
    EXPECT_EQ(open_elsewhere(path, 3), TMF_EREADER_PRESENT);
}

// The slot's owner is none of the file's users, and loses its number there.
TEST_F(TmfOpenFailure, SlotLockedByAStrangerFailsWithCode1)
{
    for (const int mode : {1, 0}) {
        const size_t at = mode == 1 ? 256 : 320;
        const size_t map = mode == 1 ? 126 : 128;
        const size_t count = mode == 1 ? 68 : 70;
        make();
        store<int32_t>(at, 4711);
        lock_holder stranger(path, static_cast<off_t>(at), 4);
        refuses(mode, 1, "slot 0");
        EXPECT_EQ(message_of(nullptr), "Message file error #1");
        EXPECT_EQ(stored<int32_t>(at), 0);
        EXPECT_EQ(bytes()[map], 1);
        EXPECT_EQ(stored<int16_t>(count), 1);
        EXPECT_EQ(holder_of(path, static_cast<off_t>(at), 4), stranger.pid());

        // It counts as a user while it holds the lock.
        EXPECT_EQ(open_elsewhere(path, mode), 0);
        EXPECT_EQ(bytes()[map], 1);
        EXPECT_EQ(open_elsewhere(path, mode + 2),
                  mode == 1 ? TMF_EREADER_PRESENT : TMF_EWRITER_PRESENT);
        stranger.kill();
        EXPECT_EQ(open_elsewhere(path, mode), 0);
        expect_nobody();
    }
}

// ---- closing

TEST_F(TmfOpenFailure, CloseThatCannotHaveTheAreaFreesTheHandleOnly)
{
    const size_t descriptors = open_descriptors();
    const struct {
        const char *name;
        void (*plan)();
        int code;
    } rows[] = {
        {"lock", [] { fail_call(CALL_LOCKF, ENOLCK); }, TMF_ELOCK_WAIT},
        {"read", [] { fail_call(CALL_READ, EIO); }, TMF_EREAD_COMMON},
        {"seek", [] { fail_call(CALL_LSEEK, EIO, 1); }, TMF_ESEEK_COMMON},
    };
    for (const auto &row : rows) {
        for (const int mode : {0, 1}) {
            tmf_handle *h = open(mode);
            ASSERT_NE(h, nullptr);
            row.plan();
            EXPECT_EQ(tmf_fclose(h), row.code) << row.name;
            EXPECT_EQ(open_descriptors(), descriptors);
            EXPECT_EQ(stored<int16_t>(mode == 1 ? 68 : 70), 1) << row.name;
            EXPECT_EQ(slot(mode == 1 ? 0 : 16), getpid()) << row.name;
            EXPECT_EQ(holder_of(path, 0, 0), 0) << row.name;
            EXPECT_EQ(open_elsewhere(path, 0), 0);
            expect_nobody();
        }
    }
}

TEST_F(TmfOpenFailure, CloseGivesTheReleasesResultAndNoOther)
{
    const struct {
        const char *name;
        void (*plan)();
        int code;
        bool stays;
    } rows[] = {
        {"slot write", [] { fail_call(CALL_WRITE, EIO); }, 0, false},
        {"slot unlock", [] { fail_call(CALL_LOCKF, ENOLCK, 1); }, 0, false},
        {"write", [] { fail_call(CALL_WRITE, ENOSPC, 1); }, TMF_EWRITE_COMMON, true},
        {"unlock", [] { fail_call(CALL_LOCKF, ENOLCK, 2); }, TMF_EUNLOCK, false},
    };
    for (const auto &row : rows) {
        for (const int mode : {0, 1}) {
            tmf_handle *h = open(mode);
            ASSERT_NE(h, nullptr);
            row.plan();
            EXPECT_EQ(tmf_fclose(h), row.code) << row.name;
            EXPECT_EQ(stored<int16_t>(mode == 1 ? 68 : 70), row.stays ? 1 : 0) << row.name;
            EXPECT_EQ(holder_of(path, 0, 0), 0) << row.name;
            EXPECT_EQ(open_elsewhere(path, 1), 0);
            EXPECT_EQ(stored<int16_t>(70), 0);
        }
    }
}

TEST_F(TmfOpenFailure, CloseOfARegistrationThatIsGoneSucceeds)
{
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    const char nothing[126] = {};
    ASSERT_EQ(pwrite(h->fd, nothing, 126, 128), 126);
    EXPECT_EQ(tmf_fclose(h), 0);
    EXPECT_EQ(stored<int16_t>(70), 1); // not its to count down
    EXPECT_EQ(slot(16), 0);
}
