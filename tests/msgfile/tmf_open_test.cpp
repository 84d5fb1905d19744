// Opening and closing: what a user does to the file, in which order, with which
// permissions and descriptors, and what a failed open leaves behind.
#include "msgfile/tmf_area.h"
#include "msgfile/tmf_open.h"
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <vector>

using texts = std::vector<std::string>;

class TmfOpen : public MessageFile {
  protected:
    system_calls_guard guard;

    // Permission bits of the file.
    mode_t permissions() const
    {
        struct stat info = {};
        EXPECT_EQ(stat(path.c_str(), &info), 0);
        return info.st_mode & 07777;
    }
    bool exists() const
    {
        return access(path.c_str(), F_OK) == 0;
    }
    // Opens and expects failure with a code.
    void refuses(int mode, int code, const char *name) const
    {
        EXPECT_EQ(open(mode), nullptr) << name;
        EXPECT_EQ(tmf_geterrno(nullptr), code) << name;
    }
};

static size_t open_descriptors()
{
    size_t n = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        n++;
    return n;
}

static bool is_close_on_exec(int fd)
{
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

// ---- a user in the file

TEST_F(TmfOpen, WriterCreatesTheFileAndTakesSlot0)
{
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    const std::string file = bytes_through(h);
    EXPECT_EQ(file.size(), 4352U);
    EXPECT_EQ(number_at<int16_t>(file, 68), 0);
    EXPECT_EQ(number_at<int16_t>(file, 70), 1);
    EXPECT_EQ(file[128], 1);
    EXPECT_EQ(number_at<int32_t>(file, 320), getpid());
    EXPECT_EQ(holder_of(path, 320, 4), getpid());
    EXPECT_EQ(holder_of(path, 0, 320), 0);
    EXPECT_EQ(holder_of(path, 324, 0), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
    EXPECT_EQ(holder_of(path, 0, 0), 0);
    expect_nobody();
}

TEST_F(TmfOpen, ReaderCreatesTheFileAndTakesSlot0)
{
    tmf_handle *h = open(1);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->signal_port, 53248);
    const std::string file = bytes_through(h);
    EXPECT_EQ(file.size(), 4352U);
    EXPECT_EQ(number_at<int16_t>(file, 68), 1);
    EXPECT_EQ(number_at<int16_t>(file, 70), 0);
    EXPECT_EQ(file[126], 1);
    EXPECT_EQ(number_at<int32_t>(file, 256), getpid());
    EXPECT_EQ(holder_of(path, 256, 4), getpid());
    EXPECT_EQ(holder_of(path, 0, 256), 0);
    EXPECT_EQ(holder_of(path, 260, 0), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
    expect_nobody();
}

TEST_F(TmfOpen, LaterUsersTakeTheNextSlots)
{
    other_user writer(path, 0);
    other_user reader(path, 1);
    tmf_handle *h = open(1);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->user_id, 1);
    EXPECT_EQ(h->signal_port, 53249);
    const std::string file = bytes_through(h);
    EXPECT_EQ(number_at<int16_t>(file, 68), 2);
    EXPECT_EQ(number_at<int16_t>(file, 70), 1);
    EXPECT_EQ(file[126], 3);
    EXPECT_EQ(number_at<int32_t>(file, 256), reader.pid());
    EXPECT_EQ(number_at<int32_t>(file, 260), getpid());
    EXPECT_EQ(number_at<int32_t>(file, 320), writer.pid());
    EXPECT_EQ(holder_of(path, 256, 4), reader.pid());
    EXPECT_EQ(holder_of(path, 260, 4), getpid());
    EXPECT_EQ(reader.close(), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
    EXPECT_EQ(writer.close(), 0);
    expect_nobody();
}

TEST_F(TmfOpen, HandleHoldsWhatTheModeAsksFor)
{
    std::string name = "queue";
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    tmf_handle *h = tmf_new(fd, name.c_str(), 1 | 2 | 4 | 8);
    ASSERT_NE(h, nullptr);
    name[0] = 'Q';
    EXPECT_STREQ(h->path, "queue");
    EXPECT_EQ(h->fd, fd);
    EXPECT_NE(h->is_reader, 0);
    EXPECT_NE(h->copy_mode, 0);
    EXPECT_EQ(h->record_pids, 1);
    EXPECT_EQ(h->user_id, -1);
    EXPECT_EQ(h->common, nullptr);
    EXPECT_EQ(h->record_buffer, nullptr);
    h->is_reader = h->copy_mode = h->record_pids = h->user_id = 0;
    h->fd = 0;
    free(h->path);
    h->path = nullptr;
    EXPECT_EQ(std::string(reinterpret_cast<char *>(h), sizeof(*h)), std::string(sizeof(*h), '\0'));
    h->fd = fd;
    tmf_free_mf(h);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1); // closed
    tmf_free_mf(nullptr);

    h = open(0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->is_reader, 0);
    EXPECT_EQ(h->copy_mode, 0);
    EXPECT_EQ(tmf_fclose(h), 0);
}

// ---- order

TEST_F(TmfOpen, OpenLocksReadsRegistersAndWritesInThisOrder)
{
    make();
    forget_calls();
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(calls_as_text(),
              (texts{"open", "lseek 0", "lock 256", "read 256", "time",  // first user
                     "lseek 320", "trylock 4", "lseek 320", "write 4",   // its slot
                     "lseek 0", "write 256", "lseek 0", "unlock 256"})); // its registration
    forget_calls();
    EXPECT_EQ(tmf_fclose(h), 0);
    EXPECT_EQ(calls_as_text(), (texts{"lseek 0", "lock 256", "lseek 0", "read 256",    //
                                      "lseek 320", "write 4", "lseek 320", "unlock 4", //
                                      "lseek 0", "write 256", "lseek 0", "unlock 256"}));
}

TEST_F(TmfOpen, NewFileIsWrittenBeforeItsFirstUserRegisters)
{
    tmf_handle *h = open(1);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(calls_as_text(),
              (texts{"open", "lseek 0", "lock 256", "read 256", "lseek 0", "write 256", //
                     "lseek 256", "write 4096", "time",                                 //
                     "lseek 256", "trylock 4", "lseek 256", "write 4",                  //
                     "lseek 0", "write 256", "lseek 0", "unlock 256"}));
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfOpen, InitLeavesTheAreaLockedAndTheUserUnregistered)
{
    make();
    tmf_handle *h = tmf_init_tmf_file(path.c_str(), 1);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(holder_of(path, 0, 256), getpid());
    EXPECT_EQ(holder_of(path, 256, 0), 0);
    EXPECT_EQ(h->user_id, -1);
    EXPECT_EQ(h->common->num_readers, 0);
    tmf_free_mf(h);
    expect_nobody();
}

TEST_F(TmfOpen, StampIsTheFirstUsersAndStaysWhileAnyoneIsThere)
{
    answer_call(CALL_TIME, 0x11111111, 0, -1);
    other_user first(path, 0);
    EXPECT_EQ(bytes().substr(84, 8), "11111111");
    answer_call(CALL_TIME, 0x22222222, 0, -1);
    EXPECT_EQ(open_elsewhere(path, 1), 0);
    EXPECT_EQ(open_elsewhere(path, 0), 0);
    EXPECT_EQ(bytes().substr(84, 8), "11111111");
    first.kill(); // and is removed before the next user is found to be the first
    EXPECT_EQ(open_elsewhere(path, 0), 0);
    EXPECT_EQ(bytes().substr(84, 8), "22222222");
    answer_call(CALL_TIME, 0x33333333, 0, -1);
    EXPECT_EQ(open_elsewhere(path, 1), 0);
    EXPECT_EQ(bytes().substr(84, 8), "33333333");
}

// ---- modes

TEST_F(TmfOpen, CopyModeWantsExclusiveReadingBeforeTheFileIsTouched)
{
    for (const int mode : {4, 5, 6, 12, 13, 14}) {
        forget_calls();
        EXPECT_EQ(open(mode), nullptr) << mode;
        EXPECT_EQ(tmf_geterrno(nullptr), -5266) << mode;
        EXPECT_TRUE(calls_made().empty()) << mode;
        EXPECT_FALSE(exists()) << mode;
    }
    EXPECT_EQ(message_of(nullptr), "Must specify exclusive read access to open in copy mode.");
    EXPECT_EQ(open_elsewhere(path, 7), 0);
    EXPECT_EQ(open_elsewhere(path, 15), 0);
}

TEST_F(TmfOpen, UnknownModeBitsAreIgnored)
{
    tmf_handle *h = open(~15);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->is_reader, 0);
    EXPECT_EQ(h->common->flags, 0);
    EXPECT_EQ(permissions(), 0600U);
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfOpen, ExclusiveUseShutsOutOthersOfItsKindOnly)
{
    const struct {
        int first;
        int second;
        int code;
    } rows[] = {
        {1, 1, 0},     {1, 3, -5262}, {1, 7, -5262}, {3, 1, -5260}, {3, 3, -5260},
        {3, 7, -5260}, {7, 1, -5260}, {7, 3, -5260}, {7, 7, -5260}, {0, 0, 0},
        {0, 2, -5263}, {2, 0, -5261}, {2, 2, -5261}, {0, 1, 0},     {0, 3, 0},
        {0, 7, 0},     {1, 0, 0},     {1, 2, 0},     {2, 1, 0},     {2, 3, 0},
        {2, 7, 0},     {3, 0, 0},     {3, 2, 0},     {7, 0, 0},     {7, 2, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::to_string(row.first) + " then " + std::to_string(row.second));
        other_user first(path, row.first);
        const std::string alone = bytes();
        EXPECT_EQ(open_elsewhere(path, row.second), row.code);
        EXPECT_SAME_BYTES(bytes(), alone);
        EXPECT_EQ(first.close(), 0);
        expect_nobody();
        EXPECT_EQ(open_elsewhere(path, row.second), 0);
    }
}

TEST_F(TmfOpen, ExclusiveRefusalsHaveTheirTexts)
{
    const struct {
        int first;
        int second;
        const char *text;
    } rows[] = {
        {3, 1, "File already opened exclusively for read access."},
        {2, 0, "File already opened exclusively for write access."},
        {1, 3, "Exclusively read access requested for file already open."},
        {0, 2, "Exclusively write access requested for file already open."},
    };
    for (const auto &row : rows) {
        const other_user first(path, row.first);
        EXPECT_EQ(open(row.second), nullptr);
        EXPECT_EQ(message_of(nullptr), row.text);
    }
}

// ---- permissions

TEST_F(TmfOpen, FileIsTheOwnersUnlessAllUsersAreToWrite)
{
    const struct {
        mode_t mask;
        int mode;
        mode_t permissions;
    } rows[] = {{022, 0, 0600}, {0, 0, 0600},    {077, 1, 0600},   {0200, 0, 0400}, {022, 8, 0666},
                {077, 9, 0666}, {0777, 8, 0666}, {0777, 10, 0666}, {0, 15, 0666}};
    const mode_t before = umask(0);
    for (const auto &row : rows) {
        unlink(path.c_str());
        umask(row.mask);
        tmf_handle *h = open(row.mode);
        EXPECT_EQ(umask(row.mask), row.mask);
        ASSERT_NE(h, nullptr) << row.mode;
        EXPECT_EQ(permissions(), row.permissions) << row.mode;
        EXPECT_EQ(tmf_fclose(h), 0);
        const call_made made = calls_made(CALL_OPEN)[0];
        EXPECT_EQ(made.a, O_RDWR | O_CREAT | O_CLOEXEC);
        EXPECT_EQ(made.b, (row.mode & 8) != 0 ? 0666 : 0600);
        forget_calls();
    }
    umask(before);
}

TEST_F(TmfOpen, UmaskComesBackFromAFailedOpen)
{
    const mode_t before = umask(027);
    fail_call(CALL_OPEN, EACCES);
    refuses(8, -5205, "mode 8");
    EXPECT_EQ(umask(027), 027U);
    EXPECT_EQ(message_of(nullptr), "Error opening file: " + std::string(strerror(EACCES)));
    umask(before);
}

TEST_F(TmfOpen, PermissionsOfAnExistingFileStay)
{
    make();
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(open_elsewhere(path, 8), 0);
    EXPECT_EQ(open_elsewhere(path, 0), 0);
    EXPECT_EQ(permissions(), 0640U);
}

// ---- descriptors

// Standard input is closed and comes back at the end.
struct without_stdin {
    int kept = fcntl(0, F_DUPFD_CLOEXEC, 100);
    without_stdin()
    {
        close(0);
    }
    ~without_stdin()
    {
        dup2(kept, 0);
        close(kept);
    }
};

TEST_F(TmfOpen, FreeStandardDescriptorIsNotTaken)
{
    make();
    const without_stdin closed;
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    int fd = -1;
    EXPECT_EQ(tmf_getinfo(writer, TMF_INFO_DESCRIPTOR, &fd, 0), 0);
    EXPECT_GT(fd, 2);
    EXPECT_TRUE(is_close_on_exec(fd));

    // A reader that is said to wait, so that there is someone to wake.
    ASSERT_EQ(pwrite(fd, "\1", 1, 124), 1);
    answer_call(CALL_SENDTO, 12, 0, -1);
    EXPECT_EQ(tmf_fwrite(writer, "x", 1), 0);
    ASSERT_EQ(calls_made(CALL_SENDTO).size(), 1U);
    EXPECT_GT(calls_made(CALL_SENDTO)[0].fd, 2);
    EXPECT_TRUE(is_close_on_exec(calls_made(CALL_SENDTO)[0].fd));
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    EXPECT_EQ(tmf_fclose(writer), 0);
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
}

TEST_F(TmfOpen, WaitingReaderTakesNoStandardDescriptorEither)
{
    make();
    const without_stdin closed;
    tmf_handle *reader = open(1);
    ASSERT_NE(reader, nullptr);
    EXPECT_GT(reader->fd, 2);
    answer_call(CALL_POLL, 0); // the time is over at once
    char buf[8];
    EXPECT_EQ(tmf_freadx(reader, buf, sizeof(buf), 0, 1), 0);
    ASSERT_FALSE(calls_made(CALL_RECVFROM).empty());
    EXPECT_GT(calls_made(CALL_RECVFROM)[0].fd, 2);
    EXPECT_TRUE(is_close_on_exec(calls_made(CALL_RECVFROM)[0].fd));
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
    EXPECT_EQ(tmf_fclose(reader), 0);
}

TEST_F(TmfOpen, NoDescriptorAboveTheStandardOnesFailsTheOpen)
{
    const without_stdin closed;
    fail_call(CALL_FCNTL, EMFILE);
    refuses(0, -5205, "no other descriptor");
    EXPECT_EQ(message_of(nullptr), "Error opening file: " + std::string(strerror(EMFILE)));
    EXPECT_EQ(fcntl(0, F_GETFD), -1);
}

TEST_F(TmfOpen, DescriptorsEndWithTheHandle)
{
    make();
    const size_t before = open_descriptors();
    for (const int mode : {0, 1, 7}) {
        tmf_handle *h = open(mode);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(open_descriptors(), before + 1);
        EXPECT_TRUE(is_close_on_exec(h->fd));
        EXPECT_EQ(tmf_fclose(h), 0);
        EXPECT_EQ(open_descriptors(), before);
    }
}

// ---- failure

TEST_F(TmfOpen, SystemsRefusalIsGivenInWords)
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
            EXPECT_EQ(tmf_geterrno(nullptr), -5205) << row.name;
            EXPECT_EQ(message_of(nullptr),
                      "Error opening file: " + std::string(strerror(row.os_errno)));
        }
    }
}

TEST_F(TmfOpen, OutOfMemoryLeavesTheFileAsItWas)
{
    make({"one"});
    const std::string before = bytes();
    const size_t descriptors = open_descriptors();
    const struct {
        call_kind kind;
        int code;
        std::string text;
    } rows[] = {
        {CALL_CALLOC, -5205, "Error opening file: " + std::string(strerror(ENOMEM))},
        {CALL_STRDUP, -5205, "Error opening file: " + std::string(strerror(ENOMEM))},
        {CALL_MALLOC, -5234, "Internal error."},
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
TEST_F(TmfOpen, FailedOpenFreesAllButARegistrationAlreadyWritten)
{
    const struct {
        const char *name;
        void (*plan)();
        int reader;
        int writer;
        bool stays;
    } rows[] = {
        {"seek for the lock", [] { fail_call(CALL_LSEEK, EIO); }, -5235, -5235, false},
        {"lock", [] { fail_call(CALL_LOCKF, ENOLCK); }, -5236, -5236, false},
        {"read", [] { fail_call(CALL_READ, EIO); }, -5206, -5206, false},
        {"seek for the slot lock", [] { fail_call(CALL_LSEEK, EIO, 1); }, -5235, -5235, true},
        {"slot lock", [] { fail_call(CALL_LOCKF, ENOLCK, 1); }, -5237, -5237, true},
        {"seek to the slot", [] { fail_call(CALL_LSEEK, EIO, 2); }, -5241, -5245, true},
        {"seek elsewhere", [] { answer_call(CALL_LSEEK, 0, 2); }, -5241, -5245, true},
        {"slot write", [] { fail_call(CALL_WRITE, EIO); }, -5242, -5246, true},
        {"short slot write", [] { answer_call(CALL_WRITE, 3); }, -5243, -5247, true},
        {"seek of the release", [] { fail_call(CALL_LSEEK, EIO, 3); }, -5218, -5218, false},
        {"release elsewhere", [] { answer_call(CALL_LSEEK, 8, 3); }, -5219, -5219, false},
        {"write", [] { fail_call(CALL_WRITE, ENOSPC, 1); }, -5222, -5222, false},
        {"short write", [] { answer_call(CALL_WRITE, 255, 1); }, -5223, -5223, true},
        {"seek for the unlock", [] { fail_call(CALL_LSEEK, EIO, 4); }, -5235, -5235, true},
        {"unlock", [] { fail_call(CALL_LOCKF, ENOLCK, 2); }, -5239, -5239, true},
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

TEST_F(TmfOpen, NoFreeBitThoughTheCountAllowsItIsAnInternalError)
{
    make();
    std::string file = bytes();
    put_number<int16_t>(file, 64, 2); // the file has two reader slots
    put_number<int16_t>(file, 68, 2);
    file[126] = 3;
    write_file(path, file);
    const lock_holder alive(path, 256, 8);
    refuses(1, -5234, "all slots taken");
    EXPECT_EQ(message_of(nullptr), "Internal error.");
    EXPECT_EQ(stored<int16_t>(68), 2);
    EXPECT_EQ(open_elsewhere(path, 3), -5262);
}

// The slot's owner is none of the file's users, and loses its number there.
TEST_F(TmfOpen, SlotLockedByAStrangerFailsWithCode1)
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
        EXPECT_EQ(open_elsewhere(path, mode + 2), mode == 1 ? -5262 : -5263);
        stranger.kill();
        EXPECT_EQ(open_elsewhere(path, mode), 0);
        expect_nobody();
    }
}

// ---- closing

TEST_F(TmfOpen, CloseThatCannotHaveTheAreaFreesTheHandleOnly)
{
    const size_t descriptors = open_descriptors();
    const struct {
        const char *name;
        void (*plan)();
        int code;
    } rows[] = {
        {"lock", [] { fail_call(CALL_LOCKF, ENOLCK); }, -5236},
        {"read", [] { fail_call(CALL_READ, EIO); }, -5220},
        {"seek", [] { fail_call(CALL_LSEEK, EIO, 1); }, -5218},
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

TEST_F(TmfOpen, CloseGivesTheReleasesResultAndNoOther)
{
    const struct {
        const char *name;
        void (*plan)();
        int code;
        bool stays;
    } rows[] = {
        {"slot write", [] { fail_call(CALL_WRITE, EIO); }, 0, false},
        {"slot unlock", [] { fail_call(CALL_LOCKF, ENOLCK, 1); }, 0, false},
        {"write", [] { fail_call(CALL_WRITE, ENOSPC, 1); }, -5222, true},
        {"unlock", [] { fail_call(CALL_LOCKF, ENOLCK, 2); }, -5239, false},
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

TEST_F(TmfOpen, CloseOfARegistrationThatIsGoneSucceeds)
{
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    const char nothing[126] = {};
    ASSERT_EQ(pwrite(h->fd, nothing, 126, 128), 126);
    EXPECT_EQ(tmf_fclose(h), 0);
    EXPECT_EQ(stored<int16_t>(70), 1); // not its to count down
    EXPECT_EQ(slot(16), 0);
}
