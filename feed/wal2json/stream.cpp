// One step for each kind of line, by where the stream is: between transactions or
// inside one.
#include "feed/wal2json/stream.h"

#include "feed/stamp.h"
#include "feed/text.h"
#include "feed/wal2json/columns.h"
#include "feed/wal2json/parse.h"
#include "fwutil/fwu_start.h"
#include "fwutil/fwu_time.h"

static std::string transaction_name(const w2j_stream &stream)
{
    return "transaction " + std::to_string(stream.tx.commit.xid) + " (begun in line " +
           std::to_string(stream.opened_at) + ")";
}

static outcome take_begin(w2j_stream &stream, uint64_t number)
{
    const w2j_line &line = stream.line;
    if (stream.tx.open)
        return outcome_bad("a transaction begins inside " + transaction_name(stream) +
                           ", whose C line is missing: the stream has a gap");
    fwu_commit commit;
    feed_stamp stamp;
    commit.xid = line.xid;
    if (!fwu_lsn_parse(commit.lsn, line.lsn))
        return outcome_bad("lsn " + feed_quote(line.lsn) + " is not a log position");
    if (!feed_stamp_parse(stamp, line.timestamp) || !stamp.zoned)
        return outcome_bad("timestamp " + feed_quote(line.timestamp) +
                           " is not a time with an offset from UTC");
    commit.time_us = stamp.seconds * FWU_US_PER_S + stamp.micros;

    feed_begin(stream.tx, commit);
    stream.opened_at = number;
    stream.lsn = line.lsn;
    return {};
}

static outcome take_commit(w2j_stream &stream)
{
    if (stream.line.lsn != stream.lsn)
        return outcome_bad("the C line's lsn " + feed_quote(stream.line.lsn) + " is not the " +
                           feed_quote(stream.lsn) + " of " + transaction_name(stream));
    return feed_commit(stream.tx);
}

static outcome wrong_xid(const w2j_stream &stream)
{
    return outcome_bad("xid " + std::to_string(stream.line.xid) + " stands inside " +
                       transaction_name(stream));
}

static outcome take_message(w2j_stream &stream)
{
    const w2j_line &line = stream.line;
    if (!line.transactional || line.prefix != FEED_SESSION_PREFIX)
        return {};
    if (!stream.tx.open)
        return outcome_bad("a session message stands outside a transaction");
    if (line.xid != stream.tx.commit.xid)
        return wrong_xid(stream);
    if (line.content.find('\0') != std::string::npos)
        return outcome_bad("the session message holds a NUL character");
    feed_set_session(stream.tx, line.content);
    return {};
}

static outcome take_change(w2j_stream &stream)
{
    const w2j_line &line = stream.line;
    if (stream.tx.skipping)
        return {};
    feed_table *table = nullptr;
    if (outcome found = feed_find_table(table, stream.tables, line.schema, line.table); !found)
        return found;
    if (table->dataset == nullptr)
        return {};
    if (line.action == 'T')
        return feed_put_truncate(stream.tx, *table, line.schema, line.table);
    if (line.action != 'I' && !line.identity.present)
        return outcome_bad(feed_no_old_row_text(*table));
    w2j_describe(*table, *stream.tables.config, line, stream.tx.work.notes);
    return feed_change(stream.tx, *table, line.action == 'D' ? nullptr : &line.columns,
                       line.action == 'I' ? nullptr : &line.identity);
}

static outcome take_line(w2j_stream &stream, uint64_t number)
{
    const w2j_line &line = stream.line;
    if (line.action == 'B')
        return take_begin(stream, number);
    if (line.action == 'M')
        return take_message(stream);
    if (!stream.tx.open)
        return outcome_bad(std::string("a line of kind ") + line.action +
                           " stands outside a transaction: its B line is missing");
    if (line.xid != stream.tx.commit.xid)
        return wrong_xid(stream);
    return line.action == 'C' ? take_commit(stream) : take_change(stream);
}

outcome w2j_stream_line(w2j_stream &stream, std::string_view text, uint64_t number)
{
    outcome taken = w2j_parse(stream.line, text);
    if (taken)
        taken = take_line(stream, number);
    if (!taken)
        feed_abandon(stream.tx);
    return taken;
}
