// Registration and slots: the user ids of the common area, the slot's bytes and
// its lock.
#include "msgfile/tmf_common.h"
#include "msgfile/tmf_open.h"
#include "msgfile/tmf_users.h"
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/other_process.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <string>
#include <vector>

// ---- user ids in the common area

// What the cases say once for both kinds of user.
struct kind {
    const char *name;
    int (*get)(tmf_common *common, int mode);
    int (*clear)(tmf_common *common, int id);
    int16_t tmf_common::*count;
    int16_t tmf_common::*slots;
    int limit;
    uint16_t flag;
    int too_many;
    int exclusive;
    int present;

    unsigned char *map(tmf_common &common) const
    {
        return limit == 16 ? common.reader_map : common.writer_map;
    }
};

static const kind kinds[] = {
    {"reader", tmfc_get_reader_user_id, tmfc_clear_reader_user_id, &tmf_common::num_readers,
     &tmf_common::max_readers, 16, 2, TMF_EMAXREADERS, TMF_EREADER_EXCLUSIVE, TMF_EREADER_PRESENT},
    {"writer", tmfc_get_writer_user_id, tmfc_clear_writer_user_id, &tmf_common::num_writers,
     &tmf_common::max_writers, 1008, 4, TMF_EMAXWRITERS, TMF_EWRITER_EXCLUSIVE,
     TMF_EWRITER_PRESENT},
};

static tmf_common new_area()
{
    tmf_common common;
    tmfc_init_tmc(&common);
    return common;
}

TEST(TmfUserIds, LowestFreeSlotIsTakenUntilThereIsNone)
{
    for (const kind &k : kinds) {
        SCOPED_TRACE(k.name);
        tmf_common common = new_area();
        for (int i = 0; i < k.limit; i++) {
            common.flags = 0;
            EXPECT_EQ(k.get(&common, 0), i);
            EXPECT_EQ(common.*k.count, i + 1);
            EXPECT_EQ(common.flags, 1);
        }
        EXPECT_EQ(k.get(&common, 0), k.too_many);
        EXPECT_EQ(k.clear(&common, 11), 0);
        EXPECT_EQ(k.clear(&common, 5), 0);
        EXPECT_EQ(k.get(&common, 0), 5);
        EXPECT_EQ(k.get(&common, 0), 11);
        EXPECT_EQ(k.get(&common, 0), k.too_many);
    }
}

TEST(TmfUserIds, CountAloneMakesTooManyAndTheLimitIsFixed)
{
    for (const kind &k : kinds) {
        SCOPED_TRACE(k.name);
        tmf_common common = new_area();
        common.*k.count = static_cast<int16_t>(k.limit);
        common.flags = k.flag;
        EXPECT_EQ(k.get(&common, 2), k.too_many); // though all bits are clear
        common.*k.count = 32767;
        EXPECT_EQ(k.get(&common, 0), k.too_many);
        common.flags = 0;
        common.*k.count = static_cast<int16_t>(k.limit - 1);
        common.*k.slots = 1;
        EXPECT_EQ(k.get(&common, 0), 0); // whatever the area's own limit
        common.*k.count = -1;
        EXPECT_EQ(k.get(&common, 0), TMF_EINTERNAL); // the one slot is taken
        EXPECT_EQ(common.*k.count, -1);
    }
}

TEST(TmfUserIds, ExclusiveUseIsOneUserOfItsKind)
{
    for (const kind &k : kinds) {
        SCOPED_TRACE(k.name);
        tmf_common common = new_area();
        EXPECT_EQ(k.get(&common, 2), 0);
        EXPECT_EQ(common.flags, k.flag | 1);
        EXPECT_EQ(k.get(&common, 0), k.exclusive);
        EXPECT_EQ(k.get(&common, 2), k.exclusive);
        for (const kind &other : kinds) {
            if (&other == &k)
                continue;
            EXPECT_EQ(other.get(&common, 0), 0); // not its business
        }
        EXPECT_EQ(k.clear(&common, 0), 0);
        EXPECT_EQ(common.flags & 6, 0);

        EXPECT_EQ(k.get(&common, 0), 0);
        EXPECT_EQ(k.get(&common, 2), k.present);
        EXPECT_EQ(common.flags & 6, 0);
        EXPECT_EQ(k.get(&common, 0), 1);
        EXPECT_EQ(common.*k.count, 2);
    }
}

// Kept: the flag is set before a slot is looked for.
TEST(TmfUserIds, ExclusiveFlagStaysWhenThereIsNoSlot)
{
    for (const kind &k : kinds) {
        SCOPED_TRACE(k.name);
        tmf_common common = new_area();
        memset(k.map(common), 0xFF, static_cast<size_t>(k.limit / 8));
        const tmf_common before = common;
        EXPECT_EQ(k.get(&common, 2), TMF_EINTERNAL);
        EXPECT_EQ(common.flags, k.flag);
        common.flags = 0;
        EXPECT_EQ(memcmp(&common, &before, sizeof(common)), 0);
    }
}

TEST(TmfUserIds, LastUserOfAKindEndsItsExclusiveUse)
{
    for (const kind &k : kinds) {
        SCOPED_TRACE(k.name);
        tmf_common common = new_area();
        ASSERT_EQ(k.get(&common, 0), 0);
        ASSERT_EQ(k.get(&common, 0), 1);
        common.flags = 6;
        EXPECT_EQ(k.clear(&common, 1), 0);
        EXPECT_EQ(common.flags, 7);
        EXPECT_EQ(k.clear(&common, 0), 0);
        EXPECT_EQ(common.flags, 7 & ~k.flag);
        EXPECT_EQ(common.*k.count, 0);
    }
}

TEST(TmfUserIds, SlotThatIsNotTakenIsNotCleared)
{
    for (const kind &k : kinds) {
        SCOPED_TRACE(k.name);
        tmf_common common = new_area();
        ASSERT_EQ(k.get(&common, 0), 0);
        const tmf_common before = common;
        for (const int id : {1, k.limit - 1, k.limit, -1, int{TMF_EMAXREADERS}, 2000000000})
            EXPECT_EQ(k.clear(&common, id), TMF_EINTERNAL) << id;
        EXPECT_EQ(memcmp(&common, &before, sizeof(common)), 0);
    }
}

// ---- slots in the file

class TmfUsers : public MessageFile {
  protected:
    system_calls_guard guard;
};

TEST_F(TmfUsers, SlotDataIsReadAndWrittenAtItsPlace)
{
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(tmf_write_reader_data(h, 15, 0x01020304), 0);
    EXPECT_EQ(tmf_write_writer_data(h, 1007, 0x11223344), 0);
    int32_t pid = 0;
    EXPECT_EQ(tmf_read_reader_data(h, 15, &pid), 0);
    EXPECT_EQ(pid, 0x01020304);
    EXPECT_EQ(tmf_read_writer_data(h, 1007, &pid), 0);
    EXPECT_EQ(pid, 0x11223344);
    EXPECT_EQ(tmf_read_writer_data(h, 1, &pid), 0);
    EXPECT_EQ(pid, 0);
    const std::string file = bytes_through(h);
    EXPECT_EQ(number_at<int32_t>(file, 316), 0x01020304);
    EXPECT_EQ(number_at<int32_t>(file, 4348), 0x11223344);
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfUsers, FailedSlotDataHasItsCodes)
{
    tmf_handle *h = open(0);
    ASSERT_NE(h, nullptr);
    int32_t pid = 0;
    const struct {
        const char *name;
        void (*plan)(call_kind transfer);
        int reader_read, writer_read, reader_write, writer_write;
    } rows[] = {
        {"seek", [](call_kind) { fail_call(CALL_LSEEK, EIO); }, TMF_ESEEK_READER, TMF_ESEEK_WRITER,
         TMF_ESEEK_READER, TMF_ESEEK_WRITER},
        {"elsewhere", [](call_kind) { answer_call(CALL_LSEEK, 0); }, TMF_ESEEK_READER,
         TMF_ESEEK_WRITER, TMF_ESEEK_READER, TMF_ESEEK_WRITER},
        {"failure", [](call_kind k) { fail_call(k, EIO); }, TMF_EREAD_READER, TMF_EREAD_WRITER,
         TMF_EWRITE_READER, TMF_EWRITE_WRITER},
        {"short", [](call_kind k) { answer_call(k, 3); }, TMF_EREAD_READER_EOF,
         TMF_EREAD_WRITER_EOF, TMF_EWRITE_READER_EOF, TMF_EWRITE_WRITER_EOF},
        {"nothing", [](call_kind k) { answer_call(k, 0); }, TMF_EREAD_READER_EOF,
         TMF_EREAD_WRITER_EOF, TMF_EWRITE_READER_EOF, TMF_EWRITE_WRITER_EOF},
    };
    for (const auto &row : rows) {
        row.plan(CALL_READ);
        EXPECT_EQ(tmf_read_reader_data(h, 1, &pid), row.reader_read) << row.name;
        row.plan(CALL_READ);
        EXPECT_EQ(tmf_read_writer_data(h, 1, &pid), row.writer_read) << row.name;
        row.plan(CALL_WRITE);
        EXPECT_EQ(tmf_write_reader_data(h, 1, 0), row.reader_write) << row.name;
        row.plan(CALL_WRITE);
        EXPECT_EQ(tmf_write_writer_data(h, 1, 0), row.writer_write) << row.name;
    }
    EXPECT_EQ(tmf_fclose(h), 0);
}

TEST_F(TmfUsers, OwnSlotIsLockedOnceAndUnlockedOnce)
{
    make();
    tmf_handle *h = tmf_init_tmf_file(path.c_str(), 1);
    ASSERT_NE(h, nullptr);
    h->user_id = 2;
    ASSERT_EQ(tmf_unlock_user_reader(h), 0);
    forget_calls();
    EXPECT_EQ(tmf_lock_user_reader(h), 0);
    EXPECT_EQ(calls_as_text(),
              (std::vector<std::string>{"lseek 264", "trylock 4", "lseek 264", "write 4"}));
    EXPECT_EQ(h->slot_offset, 264);
    EXPECT_EQ(h->slot_locked, 1);
    EXPECT_EQ(holder_of(path, 264, 4), getpid());
    forget_calls();
    EXPECT_EQ(tmf_lock_user_reader(h), 0);
    EXPECT_TRUE(calls_made().empty());
    EXPECT_EQ(tmf_unlock_user_reader(h), 0);
    EXPECT_EQ(calls_as_text(),
              (std::vector<std::string>{"lseek 264", "write 4", "lseek 264", "unlock 4"}));
    EXPECT_EQ(h->slot_locked, 0);
    EXPECT_EQ(holder_of(path, 264, 4), 0);
    forget_calls();
    EXPECT_EQ(tmf_unlock_user_reader(h), 0);
    EXPECT_TRUE(calls_made().empty());
    tmf_free_mf(h);
}

TEST_F(TmfUsers, UnlocksErrorGoesBeforeTheWritesAndBothLeaveTheSlotUnlockedInTheHandle)
{
    const struct {
        bool write;
        bool unlock;
        int reader;
        int writer;
    } rows[] = {{true, false, TMF_EWRITE_READER, TMF_EWRITE_WRITER},
                {false, true, TMF_EUNLOCK, TMF_EUNLOCK},
                {true, true, TMF_EUNLOCK, TMF_EUNLOCK}};
    for (const auto &row : rows) {
        for (const bool reader : {true, false}) {
            tmf_handle *h = open(reader ? 1 : 0);
            ASSERT_NE(h, nullptr);
            if (row.write)
                fail_call(CALL_WRITE, EIO);
            if (row.unlock)
                fail_call(CALL_LOCKF, ENOLCK);
            EXPECT_EQ(reader ? tmf_unlock_user_reader(h) : tmf_unlock_user_writer(h),
                      reader ? row.reader : row.writer);
            EXPECT_EQ(h->slot_locked, 0);
            EXPECT_EQ(tmf_fclose(h), 0);
        }
    }
}
