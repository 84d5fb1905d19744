// What the environment says of capture files: when they are brought to disk, and
// what becomes of a text file that is there.
#ifndef CAPTURE_SETTINGS_H
#define CAPTURE_SETTINGS_H

#include <cstdint>

enum sync_mode : int32_t {
    SYNC_IDLE,     // when reading rests, once a minute while it does not, at the end
    SYNC_INTERVAL, // so many milliseconds behind a record at the latest, at the end
    SYNC_RECORD,   // behind each record
    SYNC_OFF       // never
};

enum text_mode : int32_t {
    TEXT_TRUNCATE, // emptied at the run's first record
    TEXT_APPEND,   // the run goes on behind its last whole line
    TEXT_NEW       // refused
};

struct capture_settings {
    sync_mode sync;      // KESTRO_SYNC
    int64_t interval_ms; // longest time that a record may be unsynced while others come
    text_mode text;      // KESTRO_TEXT
};

extern capture_settings g_capture_settings;

// Reads them for a session.  0, or the code of the message that names a value that
// is none; the settings are as they were then.
int read_capture_settings();

#endif
