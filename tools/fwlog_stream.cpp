// A transaction reaches the writer with its first change, once its session is
// known; one without changes never does.
#include "tools/fwlog_stream.h"

#include "fwutil/fwutil.h"
#include "tools/pg_text.h"
#include "tools/pg_time.h"

static constexpr int64_t MICROS_PER_SECOND = 1'000'000;

static fwlog_result bad(std::string &error, std::string text)
{
    error = std::move(text);
    return FWLOG_BAD;
}

void fwlog_session_from(fwu_session &session, std::string_view content)
{
    session = {};
    while (!content.empty()) {
        const size_t end = content.find(';');
        const std::string_view part = content.substr(0, end);
        content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
        if (part.empty())
            continue;
        session.data.push_back(pgt_latin1_lossy(part));
        const size_t equals = part.find('=');
        if (equals == std::string_view::npos)
            continue;
        std::optional<std::string> *entry = fwu_session_entry(session, part.substr(0, equals));
        // The first one counts: what a client sets of its own stands behind the rest.
        if (entry != nullptr && !entry->has_value())
            *entry = pgt_latin1_lossy(part.substr(equals + 1));
    }
}

void fwlog_stream_abandon(fwlog_stream &stream)
{
    if (stream.begun)
        fwu_writer_rollback(stream.writer);
    if (stream.open)
        stream.work.truncated = stream.truncated_before;
    stream.begun = false;
    stream.open = false;
}

static std::string transaction_name(const fwlog_stream &stream)
{
    return "transaction " + std::to_string(stream.commit.xid) + " (begun in line " +
           std::to_string(stream.opened_at) + ")";
}

static fwlog_result take_begin(fwlog_stream &stream, uint64_t number, std::string &error)
{
    const w2j_line &line = stream.line;
    if (stream.open)
        return bad(error, "a transaction begins inside " + transaction_name(stream) +
                              ", whose C line is missing: the stream has a gap");
    fwu_commit commit;
    pgt_stamp stamp;
    commit.xid = line.xid;
    if (!w2j_lsn(commit.lsn, line.lsn))
        return bad(error, "lsn " + pgt_quote(line.lsn) + " is not a log position");
    if (!pgt_stamp_parse(stamp, line.timestamp) || !stamp.zoned)
        return bad(error, "timestamp " + pgt_quote(line.timestamp) +
                              " is not a time with an offset from UTC");
    commit.time_us = stamp.seconds * MICROS_PER_SECOND + stamp.micros;

    stream.open = true;
    stream.opened_at = number;
    stream.commit = commit;
    stream.logtime = stamp.seconds;
    stream.lsn = line.lsn;
    stream.skipping = commit.lsn <= fwu_writer_last_lsn(stream.writer);
    stream.has_session = false;
    stream.changes = {};
    stream.truncated_before = stream.work.truncated;
    return FWLOG_OK;
}

static void add_changes(fwlog_totals &totals, const fwlog_totals &changes)
{
    totals.inserts += changes.inserts;
    totals.updates += changes.updates;
    totals.deletes += changes.deletes;
}

static fwlog_result take_commit(fwlog_stream &stream, std::string &error)
{
    if (stream.line.lsn != stream.lsn)
        return bad(error, "the C line's lsn " + pgt_quote(stream.line.lsn) + " is not the " +
                              pgt_quote(stream.lsn) + " of " + transaction_name(stream));
    if (stream.skipping) {
        stream.totals.skipped++;
    } else if (!stream.begun) {
        stream.totals.empty++;
    } else {
        stream.begun = false; // a commit that fails has forgotten the transaction, too
        if (fwu_writer_commit(stream.writer, stream.commit) != 0)
            return FWLOG_FAILED;
        if (fwu_writer_settle(stream.writer, true) != 0)
            return FWLOG_FAILED;
        stream.totals.transactions++;
        add_changes(stream.totals, stream.changes);
    }
    stream.open = false;
    return FWLOG_OK;
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
    if (!stream.open)
        return bad(error, "a session message stands outside a transaction");
    if (line.xid != stream.commit.xid)
        return wrong_xid(stream, error);
    if (line.content.find('\0') != std::string::npos)
        return bad(error, "the session message holds a NUL character");
    if (!stream.begun) {
        stream.content = line.content;
        stream.has_session = true;
    } else if (!stream.has_session || stream.content != line.content) {
        return bad(error, "a session message comes behind the first change of " +
                              transaction_name(stream) +
                              ": it must be the first thing that a transaction does");
    }
    return FWLOG_OK;
}

static bool begin_in_log(fwlog_stream &stream)
{
    if (stream.begun)
        return true;
    fwlog_session_from(stream.session, stream.has_session ? stream.content : std::string_view());
    stream.session.data.push_back("xid=" + std::to_string(stream.commit.xid));
    stream.session.data.push_back("lsn=" + stream.lsn);
    if (fwu_writer_begin(stream.writer, &stream.session) != 0)
        return false;
    stream.begun = true;
    return true;
}

static bool add_record(fwlog_stream &stream, const pgt_table &table, int32_t opcode,
                       const std::vector<unsigned char> *before,
                       const std::vector<unsigned char> *after)
{
    return begin_in_log(stream) &&
           fwu_writer_record(stream.writer, opcode, table.dataset->layout, stream.logtime,
                             table.image_length, before == nullptr ? nullptr : before->data(),
                             after == nullptr ? nullptr : after->data()) == 0;
}

static fwlog_result take_change(fwlog_stream &stream, std::string &error)
{
    const w2j_line &line = stream.line;
    if (stream.skipping)
        return FWLOG_OK;
    pgt_table *table = pgt_find(stream.tables, line.schema, line.table, error);
    if (table == nullptr)
        return FWLOG_BAD;
    if (table->dataset == nullptr)
        return FWLOG_OK;
    if (line.action == 'T')
        return bad(error,
                   "table " + table->name +
                       " was truncated, which a log of record changes cannot express: "
                       "delete the rows instead, or leave the table out with the line skip-table " +
                       table->name);
    if (line.action != 'I' && !line.identity.present)
        return bad(error, table->name + ": the change comes without the old row: run ALTER TABLE " +
                              table->name + " REPLICA IDENTITY FULL");

    int32_t opcode = FWU_OP_INSERT;
    const w2j_row *old_row = nullptr;
    if (line.action != 'I') {
        opcode = line.action == 'U' ? FWU_OP_UPDATE : FWU_OP_DELETE;
        old_row = &line.identity;
        if (!pgi_old_image(stream.work, stream.before, *table, *old_row, error))
            return FWLOG_BAD;
    }
    if (line.action != 'D' &&
        !pgi_new_image(stream.work, stream.after, *table, line.columns, old_row, error))
        return FWLOG_BAD;
    if (!add_record(stream, *table, opcode, line.action == 'I' ? nullptr : &stream.before,
                    line.action == 'D' ? nullptr : &stream.after))
        return FWLOG_FAILED;
    (opcode == FWU_OP_INSERT   ? stream.changes.inserts
     : opcode == FWU_OP_UPDATE ? stream.changes.updates
                               : stream.changes.deletes)++;
    return FWLOG_OK;
}

static fwlog_result take_line(fwlog_stream &stream, uint64_t number, std::string &error)
{
    const w2j_line &line = stream.line;
    if (line.action == 'B')
        return take_begin(stream, number, error);
    if (line.action == 'M')
        return take_message(stream, error);
    if (!stream.open)
        return bad(error, std::string("a line of kind ") + line.action +
                              " stands outside a transaction: its B line is missing");
    if (line.xid != stream.commit.xid)
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
        fwlog_stream_abandon(stream);
    return result;
}
