// LMDB used as a queue: integer keys, one write transaction for each record or batch.
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

static void lmdb_append_batch(void *queue, const void *records, int size, int count)
{
    auto *state = static_cast<lmdb_state *>(queue);
    MDB_txn *txn = nullptr;
    must(mdb_txn_begin(state->env, nullptr, 0, &txn));
    for (int i = 0; i < count; i++) {
        MDB_val key = {sizeof(state->next), &state->next};
        const char *record = static_cast<const char *>(records) + i * size;
        MDB_val data = {static_cast<size_t>(size), const_cast<char *>(record)};
        must(mdb_put(txn, state->dbi, &key, &data, MDB_APPEND));
        state->next++;
    }
    must(mdb_txn_commit(txn));
}

static void lmdb_append(void *queue, const void *record, int size)
{
    lmdb_append_batch(queue, record, size, 1);
}

// Takes up to count records of size bytes at most.  Their number, and the bytes of the last.
static int take_records(void *queue, void *buf, int size, int count, int *copied)
{
    auto *state = static_cast<lmdb_state *>(queue);
    MDB_txn *txn = nullptr;
    must(mdb_txn_begin(state->env, nullptr, 0, &txn));
    MDB_cursor *cursor = nullptr;
    must(mdb_cursor_open(txn, state->dbi, &cursor));
    MDB_val key;
    MDB_val data;
    int taken = 0;
    int code = mdb_cursor_get(cursor, &key, &data, MDB_FIRST);
    while (code == MDB_SUCCESS) {
        *copied = std::min(size, static_cast<int>(data.mv_size));
        memcpy(static_cast<char *>(buf) + taken * size, data.mv_data, static_cast<size_t>(*copied));
        must(mdb_cursor_del(cursor, 0));
        if (++taken == count)
            break;
        code = mdb_cursor_get(cursor, &key, &data, MDB_NEXT); // the one behind the removed
    }
    if (code != MDB_NOTFOUND)
        must(code);
    mdb_cursor_close(cursor);
    must(mdb_txn_commit(txn));
    return taken;
}

static int lmdb_take_batch(void *queue, void *buf, int size, int count)
{
    int copied = 0;
    return take_records(queue, buf, size, count, &copied);
}

static int lmdb_take(void *queue, void *buf, int size)
{
    int copied = 0;
    return take_records(queue, buf, size, 1, &copied) == 0 ? 0 : copied;
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
                               .close = lmdb_close,
                               .append_batch = lmdb_append_batch,
                               .take_batch = lmdb_take_batch};
