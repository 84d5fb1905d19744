// SQLite used as a queue: one table, one transaction for each record.  In WAL mode
// without syncs a committed record outlives its process, as in a message file.
#include "bench/message_queue.h"
#include "bench/message_run.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <sqlite3.h>

struct sqlite_state {
    sqlite3 *db;
    sqlite3_stmt *insert;
    sqlite3_stmt *take;
};

[[noreturn]] static void fail_with_text(sqlite3 *db)
{
    run_fail(sqlite3_errmsg(db));
}

// The other process holds the database for microseconds; SQLite's own handler
// would sleep for a millisecond at least.
static int wait_briefly(void * /*unused*/, int /*attempts*/)
{
    const timespec pause = {0, 20000};
    nanosleep(&pause, nullptr);
    return 1;
}

static void run_sql(sqlite3 *db, const char *sql)
{
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
        fail_with_text(db);
}

static sqlite3_stmt *prepare(sqlite3 *db, const char *sql)
{
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
        SQLITE_OK)
        fail_with_text(db);
    return statement;
}

static void *sqlite_open(const char *path, bool /*reader*/)
{
    sqlite3 *db = nullptr;
    if (sqlite3_open(path, &db) != SQLITE_OK)
        fail_with_text(db);
    sqlite3_busy_handler(db, wait_briefly, nullptr);
    run_sql(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF;"
                "CREATE TABLE IF NOT EXISTS queue(id INTEGER PRIMARY KEY, data BLOB NOT NULL)");
    auto *state = new sqlite_state;
    state->db = db;
    state->insert = prepare(db, "INSERT INTO queue(data) VALUES(?)");
    state->take = prepare(db, "DELETE FROM queue WHERE id = (SELECT min(id) FROM queue) "
                              "RETURNING data");
    return state;
}

static void sqlite_append(void *queue, const void *record, int size)
{
    auto *state = static_cast<sqlite_state *>(queue);
    sqlite3_bind_blob(state->insert, 1, record, size, SQLITE_STATIC);
    if (sqlite3_step(state->insert) != SQLITE_DONE || sqlite3_reset(state->insert) != SQLITE_OK)
        fail_with_text(state->db);
}

static int sqlite_take(void *queue, void *buf, int size)
{
    auto *state = static_cast<sqlite_state *>(queue);
    int copied = 0;
    int step = sqlite3_step(state->take);
    if (step == SQLITE_ROW) {
        copied = std::min(size, sqlite3_column_bytes(state->take, 0));
        memcpy(buf, sqlite3_column_blob(state->take, 0), static_cast<size_t>(copied));
        step = sqlite3_step(state->take); // commits
    }
    if (step != SQLITE_DONE || sqlite3_reset(state->take) != SQLITE_OK)
        fail_with_text(state->db);
    return copied;
}

static void sqlite_close(void *queue)
{
    auto *state = static_cast<sqlite_state *>(queue);
    sqlite3_finalize(state->insert);
    sqlite3_finalize(state->take);
    if (sqlite3_close(state->db) != SQLITE_OK)
        fail_with_text(state->db);
    delete state;
}

const queue_kind sqlite_queue = {.name = "SQLite",
                                 .open = sqlite_open,
                                 .append = sqlite_append,
                                 .take = sqlite_take,
                                 .close = sqlite_close};
