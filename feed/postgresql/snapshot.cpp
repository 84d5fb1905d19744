// The tables are read in the snapshot that the slot exported, so that rows and stream meet
// without a gap and without a row twice.
#include "feed/postgresql/snapshot.h"

#include "feed/postgresql/query.h"
#include "feed/text.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_start.h"

#include <cinttypes>

constexpr int VERSION_WITH_COLUMN_LISTS = 150000;

// The characters that COPY writes with a backslash.
static char unescape(char c)
{
    switch (c) {
    case 'b':
        return '\b';
    case 'f':
        return '\f';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    case 'v':
        return '\v';
    default:
        return c;
    }
}

// Takes a line of COPY's text format apart, in place.
static void split(pgo_tuple &tuple, char *line, size_t length)
{
    tuple.kind = 'N';
    tuple.count = 0;
    const char *const end = line + length;
    for (char *in = line;; in++) {
        char *const begin = in;
        char *out = in;
        const bool null = end - in >= 2 && in[0] == '\\' && in[1] == 'N';
        for (; in < end && *in != '\t' && *in != '\n'; in++) {
            if (*in == '\\' && in + 1 < end)
                *out++ = unescape(*++in);
            else
                *out++ = *in;
        }
        if (tuple.count == tuple.values.size())
            tuple.values.emplace_back();
        pgo_value &value = tuple.values[tuple.count++];
        value.kind = null ? 'n' : 't';
        value.text = {begin, null ? 0 : static_cast<size_t>(out - begin)};
        if (in >= end || *in == '\n')
            return;
    }
}

// The table as a relation, and the command that gives its rows.
struct copied_table {
    pgo_relation relation;
    std::string command;
};

static outcome bad_number(const copied_table &table, const char *what, std::string_view text)
{
    return outcome_failed("the server gives %s as %s of table %s.%s", feed_quote(text).c_str(),
                          what, table.relation.schema.c_str(), table.relation.name.c_str());
}

static outcome describe(copied_table &table, pgs_server &server, const pgs_result &tables, int row)
{
    const std::string id(pgs_value(tables, row, 2));
    const std::string columns(pgs_value(tables, row, 4));
    table.relation.schema = pgs_value(tables, row, 0);
    table.relation.name = pgs_value(tables, row, 1);
    if (!pgs_number(table.relation.id, id))
        return bad_number(table, "the number", id);
    pgs_result result;
    outcome asked =
        pgs_query(server, server.sql.get(), result,
                  "SELECT attname, atttypid, atttypmod FROM pg_attribute WHERE attrelid = $1::oid"
                  " AND attnum > 0 AND NOT attisdropped AND attgenerated = ''"
                  " AND ($2::name[] IS NULL OR attname = ANY ($2::name[])) ORDER BY attnum",
                  {id.c_str(), columns.empty() ? nullptr : columns.c_str()});
    if (!asked)
        return asked;
    std::string list;
    for (int i = 0; i < PQntuples(result.get()); i++) {
        pgo_column column;
        column.name = pgs_value(result, i, 0);
        if (!pgs_number(column.type, pgs_value(result, i, 1)))
            return bad_number(table, "the type of a column", pgs_value(result, i, 1));
        if (!pgs_number(column.modifier, pgs_value(result, i, 2)))
            return bad_number(table, "the length of a column", pgs_value(result, i, 2));
        list += (list.empty() ? "" : ", ") + pgs_name(column.name);
        table.relation.columns.push_back(std::move(column));
    }
    // Rows of tables that inherit from this one are published as their own.
    const bool partitioned = pgs_value(tables, row, 3) == "p";
    const std::string filter(pgs_value(tables, row, 5));
    table.command = "COPY (SELECT " + list + " FROM " + (partitioned ? "" : "ONLY ") +
                    pgs_name(table.relation.schema) + "." + pgs_name(table.relation.name) +
                    (filter.empty() ? "" : " WHERE " + filter) + ") TO STDOUT";
    return {};
}

static outcome add_row(feed_transaction &tx, pgb_relation &relation, const pgo_tuple &tuple)
{
    const feed_row *row = nullptr;
    outcome done = pgb_row(row, relation, tuple);
    if (done)
        done = feed_change(tx, *relation.table, row, nullptr);
    feed_tell_notes(tx);
    return done;
}

// The rows that the server sends for a table; rows counts them.
static outcome copy_rows(pgs_server &server, feed_transaction &tx, pgb_relation &relation,
                         uint64_t &rows)
{
    pgo_tuple tuple;
    std::string line;
    std::string_view row;
    for (;;) {
        outcome done = pgs_row(server, row);
        if (!done || row.empty())
            return done;
        line = row;
        split(tuple, line.data(), line.size());
        done = add_row(tx, relation, tuple);
        if (!done)
            return done;
        rows++;
    }
}

static outcome copy_table(pgs_server &server, feed_transaction &tx, pgb_relations &relations,
                          const copied_table &table, bool verbose)
{
    pgb_describe(relations, table.relation);
    pgb_relation *relation = nullptr;
    outcome done = pgb_find(relation, relations, table.relation.id, tx.work.notes);
    if (!done || relation->table->dataset == nullptr)
        return done;
    pgs_result result;
    uint64_t rows = 0;
    done = pgs_command(server, server.sql.get(), result, table.command);
    if (done)
        done = copy_rows(server, tx, *relation, rows);
    if (done && verbose)
        tell("snapshot: %s.%s, %" PRIu64 " rows", table.relation.schema.c_str(),
             table.relation.name.c_str(), rows);
    return done;
}

static outcome list_tables(pgs_server &server, pgs_result &tables)
{
    PGconn *const sql = server.sql.get();
    const std::string lists = PQserverVersion(sql) >= VERSION_WITH_COLUMN_LISTS
                                  ? "p.attnames, p.rowfilter"
                                  : "NULL, NULL";
    return pgs_query(server, sql, tables,
                     "SELECT p.schemaname, p.tablename, c.oid, c.relkind, " + lists +
                         " FROM pg_publication_tables p"
                         " JOIN pg_namespace n ON n.nspname = p.schemaname"
                         " JOIN pg_class c ON c.relnamespace = n.oid AND c.relname = p.tablename"
                         " WHERE p.pubname = $1 ORDER BY 1, 2",
                     {server.publication.c_str()});
}

static outcome copy_tables(pgs_server &server, feed_transaction &tx, pgb_relations &relations,
                           const std::string &snapshot, bool verbose)
{
    PGconn *const sql = server.sql.get();
    pgs_result result;
    pgs_result tables;
    outcome done =
        pgs_command(server, sql, result, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    if (done)
        done =
            pgs_command(server, sql, result, "SET TRANSACTION SNAPSHOT " + pgs_literal(snapshot));
    if (done)
        done = list_tables(server, tables);
    if (done)
        done = pgb_get_facts(server, relations);
    for (int i = 0; done && i < PQntuples(tables.get()); i++) {
        copied_table table;
        done = describe(table, server, tables, i);
        if (done)
            done = copy_table(server, tx, relations, table, verbose);
    }
    if (done)
        done = pgs_command(server, sql, result, "COMMIT");
    return done;
}

// What is kept says "begun" from before the slot is there until the log has the rows;
// a run that finds it so, and an empty log, takes slot and snapshot anew.
static outcome copy_into_log(pgs_server &server, pgb_state &state, feed_transaction &tx,
                             pgb_relations &relations, const std::string &snapshot, uint64_t lsn,
                             bool verbose)
{
    pgb_state_enter(state, "snapshot");
    if (outcome written = pgb_kept_write(state.kept, true); !written) // where the slot begins
        return written;
    (void)pgb_state_write(state); // told
    fwu_commit commit;
    commit.lsn = lsn - 1; // the first transaction behind the snapshot may commit at lsn
    commit.time_us = fwu_now_us();
    feed_begin(tx, commit);
    tx.data.push_back("snapshot=" + snapshot);
    outcome done = feed_tell_bad(tx, copy_tables(server, tx, relations, snapshot, verbose));
    if (!done) {
        feed_abandon(tx);
        return done;
    }
    const uint64_t rows = tx.changes.inserts;
    if (!feed_commit(tx) || fwu_writer_sync(tx.writer) != 0 ||
        fwu_writer_acknowledge(tx.writer) != 0)
        return OUTCOME_FAILED;
    tell("snapshot at %s: %" PRIu64 " rows", fwu_lsn_text(lsn).c_str(), rows);
    return {};
}

// A snapshot that failed leaves no slot that would keep the server's log; a lost
// connection leaves it to the next attempt.
static void give_up_slot(pgs_server &server, pgb_state &state, const outcome &why)
{
    pgs_result result;
    if (why.kind() == OUTCOME_LOST ||
        !pgs_command(server, server.replication.get(), result,
                     "DROP_REPLICATION_SLOT " + pgs_name(server.slot)))
        return;
    state.kept.snapshot = "none";
    state.kept.told_lsn = 0;
    (void)pgb_kept_write(state.kept, true); // told
}

outcome pgb_take_snapshot(pgs_server &server, pgb_state &state, feed_transaction &tx,
                          pgb_relations &relations, const std::string &snapshot, uint64_t lsn,
                          bool verbose)
{
    outcome done = copy_into_log(server, state, tx, relations, snapshot, lsn, verbose);
    if (!done) {
        give_up_slot(server, state, done);
        return done;
    }
    state.kept.snapshot = "done";
    return pgb_kept_write(state.kept, true);
}
