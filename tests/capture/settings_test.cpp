// The environment's settings for capture files.
#include "capture/settings.h"

#include "tests/support/core_state.h"

class Settings : public core_state {
  protected:
    ~Settings() override
    {
        unsetenv("KESTRO_SYNC");
        unsetenv("KESTRO_TEXT");
        read_capture_settings();
    }

    static void expect_error(const char *name, const std::string &value, const std::string &allowed)
    {
        setenv(name, value.c_str(), 1);
        const captured printed = capture([] { EXPECT_EQ(-1, read_capture_settings()); });
        EXPECT_EQ(name + (": \"" + value + "\" is none of ") + allowed + "\n", printed.err);
        unsetenv(name);
    }
};

TEST_F(Settings, SyncTable)
{
    const struct {
        const char *value; // null: not set
        sync_mode mode;
        int64_t interval_ms;
    } cases[] = {{nullptr, SYNC_IDLE, 60000},
                 {"", SYNC_IDLE, 60000},
                 {"idle", SYNC_IDLE, 60000},
                 {"record", SYNC_RECORD, 60000},
                 {"off", SYNC_OFF, 60000},
                 {"interval 1", SYNC_INTERVAL, 1},
                 {"interval 0500", SYNC_INTERVAL, 500},
                 {"interval 86400000", SYNC_INTERVAL, 86400000}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value == nullptr ? "not set" : c.value);
        if (c.value != nullptr)
            setenv("KESTRO_SYNC", c.value, 1);
        EXPECT_EQ(0, read_capture_settings());
        EXPECT_EQ(c.mode, g_capture_settings.sync);
        EXPECT_EQ(c.interval_ms, g_capture_settings.interval_ms);
    }
    for (const char *value :
         {"Idle", "on", "interval", "interval ", "interval 0", "interval -1", "interval 1x",
          "interval 86400001", "interval 99999999999999999999", "record ", "1000"})
        expect_error("KESTRO_SYNC", value,
                     "idle, interval MILLISECONDS (1 to 86400000), record, off");
}

TEST_F(Settings, TextTable)
{
    const struct {
        const char *value; // null: not set
        text_mode mode;
    } cases[] = {{nullptr, TEXT_TRUNCATE},
                 {"", TEXT_TRUNCATE},
                 {"truncate", TEXT_TRUNCATE},
                 {"append", TEXT_APPEND},
                 {"new", TEXT_NEW}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value == nullptr ? "not set" : c.value);
        if (c.value != nullptr)
            setenv("KESTRO_TEXT", c.value, 1);
        EXPECT_EQ(0, read_capture_settings());
        EXPECT_EQ(c.mode, g_capture_settings.text);
    }
    for (const char *value : {"Append", "apend", "new ", "0"})
        expect_error("KESTRO_TEXT", value, "truncate, append, new");
}

TEST_F(Settings, AWrongValueChangesNothing)
{
    setenv("KESTRO_SYNC", "record", 1);
    setenv("KESTRO_TEXT", "new", 1);
    EXPECT_EQ(0, read_capture_settings());
    setenv("KESTRO_SYNC", "off", 1);
    setenv("KESTRO_TEXT", "old", 1);
    (void)capture([] { EXPECT_EQ(-1, read_capture_settings()); });
    EXPECT_EQ(SYNC_RECORD, g_capture_settings.sync);
    EXPECT_EQ(TEXT_NEW, g_capture_settings.text);
}
