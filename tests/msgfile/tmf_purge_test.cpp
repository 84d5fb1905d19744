// Users that died: whoever comes next frees their slots.  And files with as many
// users as there are slots.
#include "msgfile/tmf_area.h"
#include "msgfile/tmf_open.h"
#include "msgfile/tmf_users.h"
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"
#include "tests/support/run.h"

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

class TmfPurge : public MessageFile {
  protected:
    system_calls_guard guard;

    // A registered user without a process: bit, count and process id.
    void leave_dead(bool reader, int id, int32_t pid = 999999999) const
    {
        std::string file = bytes();
        const size_t map = (reader ? 126U : 128U) + static_cast<size_t>(id) / 8;
        file[map] = static_cast<char>(file[map] | 1 << id % 8);
        const size_t count = reader ? 68 : 70;
        put_number(file, count, static_cast<int16_t>(number_at<int16_t>(file, count) + 1));
        put_number(file, 256 + 4 * static_cast<size_t>(reader ? id : 16 + id), pid);
        write_file(path, file);
    }
};

TEST_F(TmfPurge, ReaderKilledWhileItWaitsIsRemovedByTheNextOpen)
{
    make();
    tmf_handle *h = nullptr;
    other_process reader({
        [&] {
            h = open(3);
            return h != nullptr ? 0 : tmf_geterrno(nullptr);
        },
        [&] {
            char buf[8];
            return tmf_fread(h, buf, sizeof(buf), 0);
        },
    });
    ASSERT_EQ(reader.run(), 0);
    reader.start();
    ASSERT_TRUE(poll_until([&] { return bytes()[124] == 1; })); // it waits
    EXPECT_EQ(stored<int16_t>(68), 1);
    EXPECT_EQ(bytes()[126], 1);
    EXPECT_EQ(stored<uint16_t>(72) & 6, 2);
    EXPECT_EQ(slot(0), reader.pid());
    EXPECT_EQ(open_elsewhere(path, 1), TMF_EREADER_EXCLUSIVE); // alive
    const pid_t pid = reader.pid();
    reader.kill();
    EXPECT_EQ(slot(0), pid); // its registration outlives it
    EXPECT_EQ(bytes()[124], 1);

    EXPECT_EQ(open_elsewhere(path, 0), 0);
    std::string file = bytes();
    file.replace(92, 2, 2, '\0'); // the port it waited on is no registration
    write_file(path, file);
    expect_nobody();
}

TEST_F(TmfPurge, KilledWritersSlotIsFreedByTheNextOpen)
{
    other_user first(path, 0);
    other_user second(path, 0);
    EXPECT_EQ(slot(16), first.pid());
    EXPECT_EQ(slot(17), second.pid());
    EXPECT_EQ(bytes()[128], 3);
    first.kill();
    EXPECT_EQ(open_elsewhere(path, 1), 0);
    EXPECT_EQ(slot(16), 0);
    EXPECT_EQ(slot(17), second.pid());
    EXPECT_EQ(bytes()[128], 2);
    EXPECT_EQ(stored<int16_t>(70), 1);
    EXPECT_EQ(second.close(), 0);
    expect_nobody();
}

TEST_F(TmfPurge, KilledExclusiveUserLetsTheNextOneIn)
{
    for (const int mode : {2, 3, 7}) {
        other_user user(path, mode);
        EXPECT_EQ(open_elsewhere(path, mode),
                  (mode & 1) != 0 ? TMF_EREADER_EXCLUSIVE : TMF_EWRITER_EXCLUSIVE);
        user.kill();
        EXPECT_EQ(open_elsewhere(path, mode), 0) << mode;
        expect_nobody();
    }
}

TEST_F(TmfPurge, GetinfoRemovesTheDeadAndKeepsTheLivingAndItself)
{
    make();
    leave_dead(true, 3);
    leave_dead(true, 15);
    leave_dead(false, 1007);
    other_user living(path, 0); // removes those, takes slot 0
    other_user dying(path, 1);
    tmf_handle *h = open(1);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->user_id, 1);
    int readers = 0;
    int writers = 0;
    EXPECT_EQ(tmf_getinfo(h, 2, &readers, 3, &writers, 0), 0);
    EXPECT_EQ(readers, 2);
    EXPECT_EQ(writers, 1);
    dying.kill();
    EXPECT_EQ(tmf_getinfo(h, 2, &readers, 3, &writers, 0), 0);
    EXPECT_EQ(readers, 1);
    EXPECT_EQ(writers, 1);
    const std::string file = bytes_through(h);
    EXPECT_EQ(number_at<int16_t>(file, 68), 1); // and that is in the file
    EXPECT_EQ(file[126], 2);
    EXPECT_EQ(number_at<int32_t>(file, 256), 0);
    EXPECT_EQ(number_at<int32_t>(file, 260), getpid());
    EXPECT_EQ(number_at<int32_t>(file, 320), living.pid());
    EXPECT_EQ(tmf_fclose(h), 0);
}

// Its own slot looks free to a process; a slot of the other kind with the same
// number is none of its own.
TEST_F(TmfPurge, OnlyTheSlotOfTheOwnKindIsPassedOver)
{
    for (const int mode : {0, 1}) {
        make();
        tmf_handle *h = open(mode);
        ASSERT_NE(h, nullptr);
        std::string file = bytes_through(h);
        const size_t other_map = mode == 1 ? 128 : 126;
        const size_t other_count = mode == 1 ? 70 : 68;
        const size_t other_slot = mode == 1 ? 320 : 256;
        file[other_map] = 1;
        put_number<int16_t>(file, other_count, 1);
        put_number<int32_t>(file, other_slot, 999999999);
        ASSERT_EQ(pwrite(h->fd, file.data(), file.size(), 0), static_cast<ssize_t>(file.size()));
        int readers = -1;
        int writers = -1;
        EXPECT_EQ(tmf_getinfo(h, 2, &readers, 3, &writers, 0), 0);
        EXPECT_EQ(readers, mode);
        EXPECT_EQ(writers, 1 - mode);
        EXPECT_EQ(number_at<int32_t>(bytes_through(h), other_slot), 0);
        EXPECT_EQ(tmf_fclose(h), 0);
    }
}

TEST_F(TmfPurge, EachTakenSlotIsTestedReadersFirst)
{
    make();
    leave_dead(false, 9);
    leave_dead(true, 7);
    leave_dead(true, 2);
    const lock_holder alive(path, 256 + 28, 4); // reader slot 7
    forget_calls();
    tmf_handle *h = tmf_init_tmf_file(path.c_str(), 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(calls_as_text(),
              (std::vector<std::string>{
                  "open", "lseek 0", "lock 256", "read 256",                                //
                  "lseek 264", "testlock 4", "lseek 264", "read 4", "lseek 264", "write 4", //
                  "lseek 284", "testlock 4",                                                //
                  "lseek 356", "testlock 4", "lseek 356", "read 4", "lseek 356", "write 4"}));
    EXPECT_EQ(h->common->num_readers, 1);
    EXPECT_EQ(h->common->num_writers, 0);
    EXPECT_EQ(h->common->reader_map[0], 0x80);
    EXPECT_EQ(tmf_release_common(h), 0);
    tmf_free_mf(h);
    EXPECT_EQ(slot(7), 999999999);
    EXPECT_EQ(slot(2), 0);
}

TEST_F(TmfPurge, SlotThatCannotBeReadOrZeroedIsFreedAllTheSame)
{
    make();
    const struct {
        const char *name;
        void (*plan)();
    } rows[] = {
        {"read", [] { fail_call(CALL_READ, EIO, 1); }},
        {"short read", [] { answer_call(CALL_READ, 3, 1); }},
        {"write", [] { fail_call(CALL_WRITE, EIO); }},
    };
    for (const auto &row : rows) {
        leave_dead(true, 4, 4711);
        row.plan();
        tmf_handle *h = open(0);
        ASSERT_NE(h, nullptr) << row.name;
        EXPECT_EQ(tmf_fclose(h), 0);
        EXPECT_EQ(slot(4), 4711) << row.name;
        EXPECT_EQ(bytes()[126], 0) << row.name;
        EXPECT_EQ(stored<int16_t>(68), 0) << row.name;
    }
}

TEST_F(TmfPurge, SlotThatCannotBeTestedEndsThePurge)
{
    make();
    leave_dead(true, 4);
    leave_dead(true, 5);
    leave_dead(false, 6);
    const std::string before = bytes();
    forget_calls();
    fail_call(CALL_LOCKF, ENOLCK, 1);
    EXPECT_EQ(open(0), nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_ELOCK_TEST);
    EXPECT_EQ(calls_made(CALL_LOCKF).size(), 3U); // lock, test, unlock
    EXPECT_SAME_BYTES(bytes(), before);

    fail_call(CALL_LOCKF, ENOLCK, 3);
    EXPECT_EQ(open(0), nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_ELOCK_TEST);
    std::string expected = before; // the readers' slots are zeroed, their bits not yet
    put_number<int32_t>(expected, 256 + 16, 0);
    put_number<int32_t>(expected, 256 + 20, 0);
    EXPECT_SAME_BYTES(bytes(), expected);
    EXPECT_EQ(open_elsewhere(path, 0), 0);
    expect_nobody();
}

TEST_F(TmfPurge, CheckOfAUserThatIsNotRegisteredIsAnInternalError)
{
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(tmf_get_common(h), 0);
    EXPECT_EQ(tmf_check_reader(h, 3), TMF_EINTERNAL);
    EXPECT_EQ(tmf_check_writer(h, 3), TMF_EINTERNAL);
    EXPECT_EQ(h->common->num_readers, 0);
    EXPECT_EQ(h->common->num_writers, 1);
    EXPECT_EQ(tmf_release_common(h), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
}

// Kept: only the readers' flag is looked after when nobody is registered.
TEST_F(TmfPurge, ExclusiveFlagOfNobodyIsClearedForReadersAlone)
{
    make();
    store<uint16_t>(72, 6);
    EXPECT_EQ(open_elsewhere(path, 0), TMF_EWRITER_EXCLUSIVE);
    EXPECT_EQ(stored<uint16_t>(72) & 6, 4);
    EXPECT_EQ(open_elsewhere(path, 1), 0);

    tmf_handle *h = open(1);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(tmf_get_common(h), 0);
    h->common->flags = 6;
    EXPECT_EQ(tmf_update_users(h), 0);
    EXPECT_EQ(h->common->flags, 6); // a reader is registered
    h->common->num_readers = 0;
    EXPECT_EQ(tmf_update_users(h), 0);
    EXPECT_EQ(h->common->flags, 4); // which alone does not make the area dirty
    h->common->num_readers = 1;
    EXPECT_EQ(tmf_release_common(h), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
}

// ---- as many users as there are slots

TEST_F(TmfPurge, SeventeenthReaderIsRefusedUntilOneDies)
{
    std::vector<std::unique_ptr<other_user>> readers;
    for (int i = 0; i < 16; i++) {
        readers.push_back(std::make_unique<other_user>(path, 1));
        EXPECT_EQ(slot(i), readers.back()->pid());
    }
    EXPECT_EQ(stored<uint16_t>(126), 0xFFFF);
    EXPECT_EQ(open(1), nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_EMAXREADERS);
    EXPECT_EQ(message_of(nullptr), "Maximum number of readers exceeded.");
    EXPECT_EQ(open_elsewhere(path, 3), TMF_EMAXREADERS);
    EXPECT_EQ(open_elsewhere(path, 0), 0);
    EXPECT_EQ(stored<int16_t>(68), 16);
    readers[5]->kill();
    other_user late(path, 1);
    EXPECT_EQ(slot(5), late.pid());
    EXPECT_EQ(stored<int16_t>(68), 16);
    readers.erase(readers.begin() + 5);
    for (const auto &reader : readers)
        EXPECT_EQ(reader->close(), 0);
    EXPECT_EQ(late.close(), 0);
    expect_nobody();
}

TEST_F(TmfPurge, WriterBehindThe1008thIsRefused)
{
    make();
    std::string file = bytes();
    file.replace(128, 126, 126, '\xFF');
    put_number<int16_t>(file, 70, 1008);
    write_file(path, file);
    lock_holder writers(path, 320, 4032); // 1008 slots
    EXPECT_EQ(open(0), nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_EMAXWRITERS);
    EXPECT_EQ(message_of(nullptr), "Maximum number of writers exceeded.");
    EXPECT_EQ(stored<int16_t>(70), 1008);
    EXPECT_EQ(open_elsewhere(path, 1), 0);

    EXPECT_EQ(writers.unlock(), 0); // all died
    EXPECT_EQ(open_elsewhere(path, 0), 0);
    expect_nobody();
}

TEST_F(TmfPurge, LastWriterSlotIsTheLastOfTheLockArea)
{
    make();
    std::string file = bytes();
    file.replace(128, 126, 126, '\xFF');
    file[253] = '\x7F';
    put_number<int16_t>(file, 70, 1007);
    write_file(path, file);
    const lock_holder writers(path, 320, 4028); // 1007 slots
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->user_id, 1007);
    EXPECT_EQ(tmf_fwrite(h, "x", 1), 0);
    file = bytes_through(h);
    EXPECT_EQ(number_at<int32_t>(file, 4348), getpid());
    EXPECT_EQ(file.substr(4352, 4), std::string("\0\7\4\0", 4)); // user number 1024
    EXPECT_EQ(holder_of(path, 4348, 4), getpid());
    EXPECT_EQ(tmf_fclose(h), 0);
    EXPECT_EQ(stored<int16_t>(70), 1007);
    EXPECT_EQ(stored<int32_t>(4348), 0);
}
