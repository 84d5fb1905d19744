// When capture files are brought to disk.
#include "capture/sync.h"

#include "capture/settings.h"
#include "driver/base/logrec.h"
#include "driver/session.h"
#include "fwutil/fwutil.h"
#include "msgfile/tmf.h"
#include "tests/support/core_state.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

class Sync : public core_state {
  protected:
    Sync()
    {
        capture_sync_begin();
    }
    ~Sync() override
    {
        g_capture_settings = {SYNC_IDLE, 60000, TEXT_TRUNCATE};
        capture_sync_begin();
    }

    void write()
    {
        static const log_record record = {0, "ORDERS", "CUST", 0, OP_INSERT, 1, 4, nullptr, "new!"};
        EXPECT_EQ(0, capture_write_insert(g_ci, &record));
    }

    const tempdir dir;
};

TEST_F(Sync, MomentTable)
{
    const struct {
        sync_mode mode;
        int64_t interval_ms;
        int record, rest, end;
    } cases[] = {
        {SYNC_IDLE, 60000, 0, 1, 1},   {SYNC_INTERVAL, 60000, 0, 0, 1}, {SYNC_INTERVAL, 0, 1, 1, 1},
        {SYNC_RECORD, 60000, 1, 1, 1}, {SYNC_OFF, 60000, -1, -1, -1},
    };
    for (const auto &c : cases) {
        g_capture_settings = {c.mode, c.interval_ms, TEXT_TRUNCATE};
        EXPECT_EQ(c.mode == SYNC_OFF ? -1 : 1, capture_sync_due(FWU_AT_START));
        EXPECT_EQ(c.record, capture_sync_due(FWU_AT_RECORD));
        EXPECT_EQ(c.rest, capture_sync_due(FWU_AT_REST));
        EXPECT_EQ(c.end, capture_sync_due(FWU_AT_END));
    }
}

TEST_F(Sync, IntervalIsCountedFromTheLastTime)
{
    g_capture_settings = {SYNC_INTERVAL, 300, TEXT_TRUNCATE};
    capture_sync(g_ci);
    EXPECT_EQ(0, capture_sync_due(FWU_AT_RECORD));
    EXPECT_TRUE(poll_until([] { return capture_sync_due(FWU_AT_RECORD) == 1; }));
    EXPECT_EQ(1, capture_sync_due(FWU_AT_REST));
    capture_sync(g_ci);
    EXPECT_EQ(0, capture_sync_due(FWU_AT_RECORD));
}

TEST_F(Sync, ANewFileIsDueAtOnce)
{
    add_file(dir.file("f"), text_options());
    g_capture_settings.sync = SYNC_INTERVAL;
    EXPECT_EQ(0, capture_sync_due(FWU_AT_RECORD));
    g_fwu.items = {{"NAME", 'X', 4}};
    get_dsetinfo(g_ci->dsets);
    write();
    EXPECT_EQ(1, capture_sync_due(FWU_AT_RECORD));
    EXPECT_NE(nullptr, capture_sync(g_ci));
    write();
    EXPECT_EQ(0, capture_sync_due(FWU_AT_RECORD));
}

TEST_F(Sync, AFileThatHasRolledOverIsDueAtOnce)
{
    setenv("KESTRO_MAXCAP", "4500", 1); // two records
    g_flags = FLAG_ROLLOVER;
    add_file(dir.file("f"));
    write();
    EXPECT_NE(nullptr, capture_sync(g_ci));
    EXPECT_EQ(0, capture_sync_due(FWU_AT_RECORD));
    (void)capture([&] { write(); });
    (void)capture([&] { write(); });
    EXPECT_EQ(dir.file("f1"), g_ci->capfiles[0]->name);
    EXPECT_EQ(1, capture_sync_due(FWU_AT_RECORD));
    const std::string mark = capture_sync(g_ci);
    EXPECT_EQ(" " + dir.file("f1") + "\n", mark.substr(mark.rfind(' ')));
}

TEST_F(Sync, AMessageFileThatReadersHaveEmptiedIsDueAtOnce)
{
    const std::string name = dir.file("f");
    add_file(name);
    write();
    write();
    EXPECT_NE(nullptr, capture_sync(g_ci));
    tmf_handle *reader = tmf_fopen(name.c_str(), TMF_MODE_READ);
    char bytes[100];
    EXPECT_EQ(66, tmf_fread(reader, bytes, sizeof bytes, 0));
    EXPECT_EQ(66, tmf_fread(reader, bytes, sizeof bytes, 0));
    tmf_fclose(reader);
    EXPECT_EQ(0, capture_sync_due(FWU_AT_RECORD));
    write();
    EXPECT_EQ(1, capture_sync_due(FWU_AT_RECORD));
    EXPECT_NE(nullptr, capture_sync(g_ci));
    write();
    EXPECT_EQ(0, capture_sync_due(FWU_AT_RECORD));
}

TEST_F(Sync, TheHooksAreTheProgramsOwn)
{
    add_file(dir.file("f"), text_options());
    EXPECT_EQ(1, Fwu_hook_sync_due(FWU_AT_START));
    EXPECT_EQ("file text 0 0 0000000000000000 " + dir.file("f") + "\n",
              std::string(Fwu_hook_sync()));
    EXPECT_EQ(0, Fwu_hook_resume(""));
    g_capture_settings.sync = SYNC_OFF;
    EXPECT_EQ(-1, Fwu_hook_sync_due(FWU_AT_START));
}

TEST_F(Sync, AFileThatCannotBeBroughtToDiskIsReported)
{
    const capfil *cf = add_file(dir.file("f"), text_options());
    g_fwu.items = {{"NAME", 'X', 4}};
    get_dsetinfo(g_ci->dsets);
    write();
    const int number = cf->fnum;
    g_ci->capfiles[0]->fnum = 9999;
    const captured printed = capture([] { EXPECT_EQ(nullptr, capture_sync(g_ci)); });
    EXPECT_EQ("CAPERR: Bad file descriptor\nError bringing capture file to disk: " + dir.file("f") +
                  "\n",
              printed.err);
    g_ci->capfiles[0]->fnum = number;
}
