// Opening and closing: what a user does to the file, in which order, with which
// permissions and descriptors.
#include "msgfile/tmf_area.h"
#include "msgfile/tmf_io.h"
#include "msgfile/tmf_open.h"
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <fcntl.h>
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
};

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
    EXPECT_NE(h->exclusive, 0);
    EXPECT_EQ(h->record_pids, 1);
    EXPECT_EQ(h->user_id, -1);
    EXPECT_EQ(h->common, nullptr);
    EXPECT_EQ(h->record_buffer, nullptr);
    EXPECT_EQ(h->file, &tmf_seeking_row);
    h->file = nullptr;
    h->is_reader = h->copy_mode = h->exclusive = h->record_pids = h->user_id = 0;
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
        EXPECT_EQ(tmf_geterrno(nullptr), TMF_ECOPYMODE) << mode;
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
        {1, 1, 0},
        {1, 3, TMF_EREADER_PRESENT},
        {1, 7, TMF_EREADER_PRESENT},
        {3, 1, TMF_EREADER_EXCLUSIVE},
        {3, 3, TMF_EREADER_EXCLUSIVE},
        {3, 7, TMF_EREADER_EXCLUSIVE},
        {7, 1, TMF_EREADER_EXCLUSIVE},
        {7, 3, TMF_EREADER_EXCLUSIVE},
        {7, 7, TMF_EREADER_EXCLUSIVE},
        {0, 0, 0},
        {0, 2, TMF_EWRITER_PRESENT},
        {2, 0, TMF_EWRITER_EXCLUSIVE},
        {2, 2, TMF_EWRITER_EXCLUSIVE},
        {0, 1, 0},
        {0, 3, 0},
        {0, 7, 0},
        {1, 0, 0},
        {1, 2, 0},
        {2, 1, 0},
        {2, 3, 0},
        {2, 7, 0},
        {3, 0, 0},
        {3, 2, 0},
        {7, 0, 0},
        {7, 2, 0},
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
    EXPECT_EQ(open(8), nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_EOPEN);
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

TEST_F(TmfOpen, FreeStandardInputIsNotTaken)
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

TEST_F(TmfOpen, NoneOfTheStandardDescriptorsIsTaken)
{
    make();
    for (int standard = 0; standard <= 2; standard++) {
        other_process program({[&] {
            close(standard);
            tmf_handle *h = open(1);
            answer_call(CALL_POLL, 0); // the time is over at once
            char buf[8];
            if (h == nullptr || tmf_freadx(h, buf, sizeof(buf), 0, 1) != 0)
                return -1;
            return fcntl(standard, F_GETFD) == -1 && h->receive.socket > 2 && h->fd > 2 ? 0 : 1;
        }});
        EXPECT_EQ(program.run(), 0) << standard;
    }
}

TEST_F(TmfOpen, SocketsAreCloseOnExec)
{
    tmf_handle *h = open(1);
    ASSERT_NE(h, nullptr);
    answer_call(CALL_POLL, 0);
    char buf[8];
    EXPECT_EQ(tmf_freadx(h, buf, sizeof(buf), 0, 1), 0);
    ASSERT_GT(h->receive.socket, 2);
    EXPECT_TRUE(is_close_on_exec(h->receive.socket));
    EXPECT_EQ(tmf_fclose(h), 0);

    h = open(0);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(pwrite(h->fd, "\1", 1, 124), 1); // a reader is said to wait
    EXPECT_EQ(tmf_fwrite(h, "x", 1), 0);
    ASSERT_GT(h->send.socket, 2);
    EXPECT_TRUE(is_close_on_exec(h->send.socket));
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfOpen, NoDescriptorAboveTheStandardOnesFailsTheOpen)
{
    const without_stdin closed;
    fail_call(CALL_FCNTL, EMFILE);
    EXPECT_EQ(open(0), nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_EOPEN);
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
