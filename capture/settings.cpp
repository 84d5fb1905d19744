// The environment's settings for capture files.
#include "capture/settings.h"

#include "driver/base/log.h"

#include <cstdlib>
#include <cstring>

constexpr int64_t INTERVAL_DEFAULT_MS = 60'000;
constexpr int64_t INTERVAL_MAX_MS = 86'400'000;

capture_settings g_capture_settings = {SYNC_IDLE, INTERVAL_DEFAULT_MS, TEXT_TRUNCATE};

struct setting_row {
    const char *word;
    int32_t value;
};

// The value of a word, or -1.
template <int N> static int32_t find_setting(const setting_row (&rows)[N], const char *word)
{
    for (const setting_row &row : rows) {
        if (strcmp(word, row.word) == 0)
            return row.value;
    }
    return -1;
}

// The milliseconds of "interval N", or -1.
static int64_t interval_of(const char *text)
{
    static const char word[] = "interval ";
    if (strncmp(text, word, sizeof word - 1) != 0)
        return -1;
    const char *digits = text + sizeof word - 1;
    int64_t value = 0;
    for (; *digits >= '0' && *digits <= '9' && value <= INTERVAL_MAX_MS; digits++)
        value = value * 10 + (*digits - '0');
    return *digits == '\0' && value >= 1 && value <= INTERVAL_MAX_MS ? value : -1;
}

// An empty value is none.
static const char *value_of(const char *name)
{
    const char *text = getenv(name);
    return text != nullptr && *text != '\0' ? text : nullptr;
}

static int read_sync(capture_settings &settings)
{
    static const setting_row rows[] = {
        {"idle", SYNC_IDLE}, {"record", SYNC_RECORD}, {"off", SYNC_OFF}};
    const char *text = value_of("KESTRO_SYNC");
    if (text == nullptr)
        return 0;
    const int32_t mode = find_setting(rows, text);
    const int64_t interval = interval_of(text);
    if (mode < 0 && interval < 0)
        return set_error_f("KESTRO_SYNC: \"%s\" is none of idle, interval MILLISECONDS (1 to "
                           "86400000), record, off",
                           text);
    settings.sync = mode < 0 ? SYNC_INTERVAL : static_cast<sync_mode>(mode);
    if (mode < 0)
        settings.interval_ms = interval;
    return 0;
}

static int read_text(capture_settings &settings)
{
    static const setting_row rows[] = {
        {"truncate", TEXT_TRUNCATE}, {"append", TEXT_APPEND}, {"new", TEXT_NEW}};
    const char *text = value_of("KESTRO_TEXT");
    if (text == nullptr)
        return 0;
    const int32_t mode = find_setting(rows, text);
    if (mode < 0)
        return set_error_f("KESTRO_TEXT: \"%s\" is none of truncate, append, new", text);
    settings.text = static_cast<text_mode>(mode);
    return 0;
}

int read_capture_settings()
{
    capture_settings settings = {SYNC_IDLE, INTERVAL_DEFAULT_MS, TEXT_TRUNCATE};
    int rc = read_sync(settings);
    if (rc == 0)
        rc = read_text(settings);
    if (rc == 0)
        g_capture_settings = settings;
    return rc;
}
