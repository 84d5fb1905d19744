#include "feed/wal2json/stream.h"

#include "feed/lsn.h"
#include "feed/stamp.h"
#include "feed/text.h"

static constexpr int64_t MICROS_PER_SECOND = 1'000'000;

static fwlog_result bad(std::string &error, std::string text)
{
    error = std::move(text);
    return FWLOG_BAD;
}

static std::string transaction_name(const fwlog_stream &stream)
{
    return "transaction " + std::to_string(stream.tx.commit.xid) + " (begun in line " +
           std::to_string(stream.opened_at) + ")";
}

static fwlog_result take_begin(fwlog_stream &stream, uint64_t number, std::string &error)
{
    const w2j_line &line = stream.line;
    if (stream.tx.open)
        return bad(error, "a transaction begins inside " + transaction_name(stream) +
                              ", whose C line is missing: the stream has a gap");
    fwu_commit commit;
    pgt_stamp stamp;
    commit.xid = line.xid;
    if (!pgl_parse(commit.lsn, line.lsn))
        return bad(error, "lsn " + pgt_quote(line.lsn) + " is not a log position");
    if (!pgt_stamp_parse(stamp, line.timestamp) || !stamp.zoned)
        return bad(error, "timestamp " + pgt_quote(line.timestamp) +
                              " is not a time with an offset from UTC");
    commit.time_us = stamp.seconds * MICROS_PER_SECOND + stamp.micros;

    fwlog_begin(stream.tx, commit);
    stream.opened_at = number;
    stream.lsn = line.lsn;
    return FWLOG_OK;
}

static fwlog_result take_commit(fwlog_stream &stream, std::string &error)
{
    if (stream.line.lsn != stream.lsn)
        return bad(error, "the C line's lsn " + pgt_quote(stream.line.lsn) + " is not the " +
                              pgt_quote(stream.lsn) + " of " + transaction_name(stream));
    return fwlog_commit(stream.tx);
}

static fwlog_result wrong_xid(const fwlog_stream &stream, std::string &error)
{
    return bad(error, "xid " + std::to_string(stream.line.xid) + " stands inside " +
                          transaction_name(stream));
}

static fwlog_result take_message(fwlog_stream &stream, std::string &error)
{
    const w2j_line &line = stream.line;
    if (!line.transactional || line.prefix != "session")
        return FWLOG_OK;
    if (!stream.tx.open)
        return bad(error, "a session message stands outside a transaction");
    if (line.xid != stream.tx.commit.xid)
        return wrong_xid(stream, error);
    if (line.content.find('\0') != std::string::npos)
        return bad(error, "the session message holds a NUL character");
    fwlog_set_session(stream.tx, line.content);
    return FWLOG_OK;
}

static fwlog_result take_change(fwlog_stream &stream, std::string &error)
{
    const w2j_line &line = stream.line;
    if (stream.tx.skipping)
        return FWLOG_OK;
    pgt_table *table = pgt_find(stream.tables, line.schema, line.table, error);
    if (table == nullptr)
        return FWLOG_BAD;
    if (table->dataset == nullptr)
        return FWLOG_OK;
    if (line.action == 'T')
        return bad(error, pgt_truncated_text(*table));
    if (line.action != 'I' && !line.identity.present)
        return bad(error, pgt_no_old_row_text(*table));
    return fwlog_change(stream.tx, *table, line.action == 'D' ? nullptr : &line.columns,
                        line.action == 'I' ? nullptr : &line.identity, error);
}

static fwlog_result take_line(fwlog_stream &stream, uint64_t number, std::string &error)
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

fwlog_result fwlog_stream_line(fwlog_stream &stream, std::string_view text, uint64_t number,
                               std::string &error)
{
    fwlog_result result = FWLOG_BAD;
    if (w2j_parse(stream.line, text, error))
        result = take_line(stream, number, error);
    if (result != FWLOG_OK)
        fwlog_abandon(stream.tx);
    return result;
}
