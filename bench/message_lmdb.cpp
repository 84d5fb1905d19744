// LMDB used as a queue: integer keys, one write transaction for each record.
// Written through the mapped file without syncs, a committed record outlives its
// process, as in a message file.
#include "bench/message_queue.h"
#include "bench/message_run.h"

#include <algorithm>
#include <cstring>
#include <lmdb.h>

// Holds the longest backlog of a measurement (see message_measure.h) with LMDB's
// own pages; the file is sparse.
static constexpr size_t map_size = size_t{1} << 30;

struct lmdb_state {
    MDB_env *env;
    MDB_dbi dbi;
    size_t next; // the writer's next key
};

static void must(int code)
{
    if (code != MDB_SUCCESS)
        run_fail(mdb_strerror(code));
}

// The key behind the last one.
static size_t next_key(MDB_txn *txn, MDB_dbi dbi)
{
    MDB_cursor *cursor = nullptr;
    must(mdb_cursor_open(txn, dbi, &cursor));
    MDB_val key;
    MDB_val data;
    const int code = mdb_cursor_get(cursor, &key, &data, MDB_LAST);
    size_t last = 0;
    if (code == MDB_SUCCESS)
        memcpy(&last, key.mv_data, sizeof(last));
    else if (code != MDB_NOTFOUND)
        must(code);
    mdb_cursor_close(cursor);
    return last + 1;
}

static void *lmdb_open(const char *path, bool /*reader*/)
{
    auto *state = new lmdb_state{};
    must(mdb_env_create(&state->env));
    must(mdb_env_set_mapsize(state->env, map_size));
    must(mdb_env_open(state->env, path, MDB_NOSUBDIR | MDB_WRITEMAP | MDB_NOSYNC, 0600));
    MDB_txn *txn = nullptr;
    must(mdb_txn_begin(state->env, nullptr, 0, &txn));
    must(mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &state->dbi));
    state->next = next_key(txn, state->dbi);
    must(mdb_txn_commit(txn));
    return state;
}

static void lmdb_append(void *queue, const void *record, int size)
{
    auto *state = static_cast<lmdb_state *>(queue);
    MDB_txn *txn = nullptr;
    must(mdb_txn_begin(state->env, nullptr, 0, &txn));
    MDB_val key = {sizeof(state->next), &state->next};
    MDB_val data = {static_cast<size_t>(size), const_cast<void *>(record)};
    must(mdb_put(txn, state->dbi, &key, &data, MDB_APPEND));
    must(mdb_txn_commit(txn));
    state->next++;
}

static int lmdb_take(void *queue, void *buf, int size)
{
    auto *state = static_cast<lmdb_state *>(queue);
    MDB_txn *txn = nullptr;
    must(mdb_txn_begin(state->env, nullptr, 0, &txn));
    MDB_cursor *cursor = nullptr;
    must(mdb_cursor_open(txn, state->dbi, &cursor));
    MDB_val key;
    MDB_val data;
    const int code = mdb_cursor_get(cursor, &key, &data, MDB_FIRST);
    int copied = 0;
    if (code == MDB_SUCCESS) {
        copied = std::min(size, static_cast<int>(data.mv_size));
        memcpy(buf, data.mv_data, static_cast<size_t>(copied));
        must(mdb_cursor_del(cursor, 0));
    } else if (code != MDB_NOTFOUND) {
        must(code);
    }
    mdb_cursor_close(cursor);
    must(mdb_txn_commit(txn));
    return copied;
}

static void lmdb_close(void *queue)
{
    auto *state = static_cast<lmdb_state *>(queue);
    mdb_env_close(state->env);
    delete state;
}

const queue_kind lmdb_queue = {.name = "LMDB",
                               .open = lmdb_open,
                               .append = lmdb_append,
                               .take = lmdb_take,
                               .close = lmdb_close};
