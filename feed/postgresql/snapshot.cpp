// The contents that the tables had when the slot was made, as inserts.
#include "feed/lsn.h"
#include "feed/postgresql/bridge.h"
#include "feed/text.h"
#include "fwutil/fwu_clock.h"

#include <cinttypes>
#include <cstdio>

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

static pgs_outcome bad_number(const copied_table &table, const char *what, std::string_view text)
{
    fprintf(stderr, "fwlog: the server gives %s as %s of table %s.%s\n", feed_quote(text).c_str(),
            what, table.relation.schema.c_str(), table.relation.name.c_str());
    return PGS_REFUSED;
}

static pgs_outcome describe(pgs_server &server, const pgs_result &tables, int row,
                            copied_table &table)
{
    const std::string id(pgs_value(tables, row, 2));
    const std::string columns(pgs_value(tables, row, 4));
    table.relation.schema = pgs_value(tables, row, 0);
    table.relation.name = pgs_value(tables, row, 1);
    if (!pgs_number(table.relation.id, id))
        return bad_number(table, "the number", id);
    pgs_result result;
    const pgs_outcome outcome =
        pgs_query(server, server.sql.get(), result,
                  "SELECT attname, atttypid, atttypmod FROM pg_attribute WHERE attrelid = $1::oid"
                  " AND attnum > 0 AND NOT attisdropped AND attgenerated = ''"
                  " AND ($2::name[] IS NULL OR attname = ANY ($2::name[])) ORDER BY attnum",
                  {id.c_str(), columns.empty() ? nullptr : columns.c_str()});
    if (outcome != PGS_OK)
        return outcome;
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
    return PGS_OK;
}

static pgs_outcome add_row(pgb_bridge &bridge, pgb_relation &relation, const pgo_tuple &tuple)
{
    const feed_row *row = nullptr;
    outcome done = pgb_row(row, relation, tuple);
    if (done)
        done = feed_change(bridge.tx, *relation.table, row, nullptr);
    pgb_tell_notes(bridge);
    if (done.kind() == OUTCOME_BAD)
        return pgb_bad(bridge, done.text());
    return done ? PGS_OK : PGS_REFUSED;
}

static pgs_outcome copy_table(pgb_bridge &bridge, const copied_table &table)
{
    pgs_server &server = bridge.server;
    pgb_describe(bridge.relations, table.relation);
    pgb_relation *relation = nullptr;
    if (const outcome found = pgb_find(relation, bridge.relations, table.relation.id); !found)
        return pgb_bad(bridge, found.text());
    if (relation->table->dataset == nullptr)
        return PGS_OK;
    pgs_result result;
    pgs_outcome outcome = pgs_command(server, server.sql.get(), result, table.command);
    if (outcome != PGS_OK)
        return outcome;
    pgo_tuple tuple;
    std::string line;
    std::string_view row;
    uint64_t rows = 0;
    while ((outcome = pgs_row(server, row)) == PGS_OK && !row.empty()) {
        line = row;
        split(tuple, line.data(), line.size());
        outcome = add_row(bridge, *relation, tuple);
        if (outcome != PGS_OK)
            return outcome;
        rows++;
    }
    if (outcome != PGS_OK)
        return outcome;
    if (bridge.options.verbose)
        fprintf(stderr, "fwlog: snapshot: %s.%s, %" PRIu64 " rows\n", table.relation.schema.c_str(),
                table.relation.name.c_str(), rows);
    return PGS_OK;
}

static pgs_outcome copy_tables(pgb_bridge &bridge, const std::string &snapshot)
{
    pgs_server &server = bridge.server;
    PGconn *const sql = server.sql.get();
    pgs_result result;
    pgs_outcome outcome =
        pgs_command(server, sql, result, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    if (outcome == PGS_OK)
        outcome =
            pgs_command(server, sql, result, "SET TRANSACTION SNAPSHOT " + pgs_literal(snapshot));
    pgs_result tables;
    const std::string lists = PQserverVersion(sql) >= VERSION_WITH_COLUMN_LISTS
                                  ? "p.attnames, p.rowfilter"
                                  : "NULL, NULL";
    if (outcome == PGS_OK)
        outcome =
            pgs_query(server, sql, tables,
                      ("SELECT p.schemaname, p.tablename, c.oid, c.relkind, " + lists +
                       " FROM pg_publication_tables p"
                       " JOIN pg_namespace n ON n.nspname = p.schemaname"
                       " JOIN pg_class c ON c.relnamespace = n.oid AND c.relname = p.tablename"
                       " WHERE p.pubname = $1 ORDER BY 1, 2")
                          .c_str(),
                      {server.publication.c_str()});
    for (int i = 0; outcome == PGS_OK && i < PQntuples(tables.get()); i++) {
        copied_table table;
        outcome = describe(server, tables, i, table);
        if (outcome == PGS_OK)
            outcome = copy_table(bridge, table);
    }
    return outcome == PGS_OK ? pgs_command(server, sql, result, "COMMIT") : outcome;
}

pgs_outcome pgb_take_snapshot(pgb_bridge &bridge, const std::string &snapshot, uint64_t lsn)
{
    bridge.state.phase = "snapshot";
    if (!pgb_state_write(bridge.state, true)) // where the slot begins
        return PGS_REFUSED;
    fwu_commit commit;
    commit.lsn = lsn - 1; // the first transaction behind the snapshot may commit at lsn
    commit.time_us = fwu_now_us();
    feed_begin(bridge.tx, commit);
    bridge.tx.data.push_back("snapshot=" + snapshot);
    const pgs_outcome outcome = copy_tables(bridge, snapshot);
    if (outcome != PGS_OK) {
        feed_abandon(bridge.tx);
        return outcome;
    }
    const uint64_t rows = bridge.tx.changes.inserts;
    if (!feed_commit(bridge.tx) || fwu_writer_sync(bridge.tx.writer) != 0 ||
        fwu_writer_acknowledge(bridge.tx.writer) != 0)
        return PGS_REFUSED;
    fprintf(stderr, "fwlog: snapshot at %s: %" PRIu64 " rows\n", feed_lsn_text(lsn).c_str(), rows);
    return PGS_OK;
}
