// One step for each kind of line, by where the stream is: between transactions or
// inside one.
#include "feed/wal2json/stream.h"

#include "feed/lsn.h"
#include "feed/stamp.h"
#include "feed/text.h"
#include "fwutil/fwu_time.h"

static feed_result bad(std::string &error, std::string text)
{
    error = std::move(text);
    return FEED_BAD;
}

static std::string transaction_name(const w2j_stream &stream)
{
    return "transaction " + std::to_string(stream.tx.commit.xid) + " (begun in line " +
           std::to_string(stream.opened_at) + ")";
}

static feed_result take_begin(w2j_stream &stream, uint64_t number, std::string &error)
{
    const w2j_line &line = stream.line;
    if (stream.tx.open)
        return bad(error, "a transaction begins inside " + transaction_name(stream) +
                              ", whose C line is missing: the stream has a gap");
    fwu_commit commit;
    feed_stamp stamp;
    commit.xid = line.xid;
    if (!feed_lsn_parse(commit.lsn, line.lsn))
        return bad(error, "lsn " + feed_quote(line.lsn) + " is not a log position");
    if (!feed_stamp_parse(stamp, line.timestamp) || !stamp.zoned)
        return bad(error, "timestamp " + feed_quote(line.timestamp) +
                              " is not a time with an offset from UTC");
    commit.time_us = stamp.seconds * FWU_US_PER_S + stamp.micros;

    feed_begin(stream.tx, commit);
    stream.opened_at = number;
    stream.lsn = line.lsn;
    return FEED_OK;
}

static feed_result take_commit(w2j_stream &stream, std::string &error)
{
    if (stream.line.lsn != stream.lsn)
        return bad(error, "the C line's lsn " + feed_quote(stream.line.lsn) + " is not the " +
                              feed_quote(stream.lsn) + " of " + transaction_name(stream));
    return feed_commit(stream.tx);
}

static feed_result wrong_xid(const w2j_stream &stream, std::string &error)
{
    return bad(error, "xid " + std::to_string(stream.line.xid) + " stands inside " +
                          transaction_name(stream));
}

static feed_result take_message(w2j_stream &stream, std::string &error)
{
    const w2j_line &line = stream.line;
    if (!line.transactional || line.prefix != "session")
        return FEED_OK;
    if (!stream.tx.open)
        return bad(error, "a session message stands outside a transaction");
    if (line.xid != stream.tx.commit.xid)
        return wrong_xid(stream, error);
    if (line.content.find('\0') != std::string::npos)
        return bad(error, "the session message holds a NUL character");
    feed_set_session(stream.tx, line.content);
    return FEED_OK;
}

static feed_result take_change(w2j_stream &stream, std::string &error)
{
    const w2j_line &line = stream.line;
    if (stream.tx.skipping)
        return FEED_OK;
    feed_table *table = feed_find_table(stream.tables, line.schema, line.table, error);
    if (table == nullptr)
        return FEED_BAD;
    if (table->dataset == nullptr)
        return FEED_OK;
    if (line.action == 'T')
        return bad(error, feed_truncated_text(*table));
    if (line.action != 'I' && !line.identity.present)
        return bad(error, feed_no_old_row_text(*table));
    return feed_change(stream.tx, *table, line.action == 'D' ? nullptr : &line.columns,
                       line.action == 'I' ? nullptr : &line.identity, error);
}

static feed_result take_line(w2j_stream &stream, uint64_t number, std::string &error)
{
    const w2j_line &line = stream.line;
    if (line.action == 'B')
        return take_begin(stream, number, error);
    if (line.action == 'M')
        return take_message(stream, error);
    if (!stream.tx.open)
        return bad(error, std::string("a line of kind ") + line.action +
                              " stands outside a transaction: its B line is missing");
    if (line.xid != stream.tx.commit.xid)
        return wrong_xid(stream, error);
    return line.action == 'C' ? take_commit(stream, error) : take_change(stream, error);
}

feed_result w2j_stream_line(w2j_stream &stream, std::string_view text, uint64_t number,
                            std::string &error)
{
    feed_result result = FEED_BAD;
    if (w2j_parse(stream.line, text, error))
        result = take_line(stream, number, error);
    if (result != FEED_OK)
        feed_abandon(stream.tx);
    return result;
}
