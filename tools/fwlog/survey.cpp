// Each file is read by itself, so that what is damaged in one hides nothing of the next.
// Entries count only once the commit behind them has been read.
#include "tools/fwlog/survey.h"

#include "fwutil/fwu_layout_check.h"
#include "fwutil/fwutil.h"
#include "tools/fwlog/fwlog.h"

#include <cstdio>

static void take_change(survey_file &into, const fwu_change &change)
{
    survey_counts &counts = into.datasets[{change.dbname, change.dsetname}];
    if (change.opcode == FWU_OP_INSERT)
        counts.inserts++;
    else if (change.opcode == FWU_OP_UPDATE)
        counts.updates++;
    else
        counts.deletes++;
}

static void take_commit(survey_file &into, const fwu_entry &entry, const fwu_commit &commit)
{
    if (into.transactions == 0)
        into.first_us = commit.time_us;
    into.transactions++;
    into.last_us = commit.time_us;
    into.last_lsn = commit.lsn;
    into.last_tag = entry.tag;
}

static void take_entry(survey_file &into, const fwu_walk_item &item)
{
    fwu_change change;
    fwu_commit_entry commit;
    fwu_mark mark;
    fwu_value_piece piece;
    into.entries++;
    if (fwu_entry_commit(item.entry, commit))
        take_commit(into, item.entry, commit.commit);
    else if (fwu_entry_change(item.entry, change))
        take_change(into, change);
    else if (fwu_entry_mark(item.entry, mark))
        (mark.kind == FWU_MARK_TRUNCATE ? into.truncates : into.gaps)++;
    else if (fwu_entry_value(item.entry, piece)) {
        into.values += piece.more ? 0 : 1;
        into.value_bytes += piece.bytes.size();
    }
}

// Nonzero: the file is damaged here, though the checksums are right.
static int take_item(survey_file &into, fwu_layout_check &layouts, const fwu_walk_item &item)
{
    const char *wrong = nullptr;
    switch (item.what) {
    case FWU_WALK_FILE:
        into.has_header = true;
        into.header = item.header;
        break;
    case FWU_WALK_ENTRY:
        wrong = fwu_layout_check_entry(layouts, item.entry);
        if (wrong == nullptr) {
            take_entry(into, item);
            break;
        }
        into.damage = wrong;
        into.damage_at = item.offset;
        break;
    case FWU_WALK_TAIL:
        into.tail = item.length;
        into.tail_at = item.offset;
        break;
    case FWU_WALK_DAMAGE:
        into.damage = item.reason;
        into.damage_at = item.offset;
        break;
    }
    return wrong != nullptr;
}

outcome fwlog_survey(const std::string &directory,
                     const std::function<void(const survey_file &)> &take)
{
    std::vector<fwu_log_file> files;
    if (fwu_log_list(directory, files) != 0)
        return OUTCOME_FAILED;
    fwu_cursor cursor;
    fwu_found found = FWU_END;
    for (size_t i = 0; i < files.size() && found != FWU_FAILED; i++) {
        survey_file facts;
        fwu_layout_check layouts;
        facts.file = files[i];
        if (i > 0 && files[i].generation == files[i - 1].generation &&
            files[i].sequence != files[i - 1].sequence + 1) {
            facts.missing_from = files[i - 1].sequence + 1;
            facts.missing_to = files[i].sequence - 1;
        }
        int ended = 0;
        found = fwu_log_walk_file(
            cursor, files[i], i + 1 == files.size(),
            [&](const fwu_walk_item &item) { return take_item(facts, layouts, item); }, ended);
        facts.size = cursor.size;
        if (found != FWU_FAILED && found != FWU_GONE)
            take(facts);
    }
    fwu_cursor_close(cursor);
    return fwlog_told(found != FWU_FAILED);
}

std::string survey_position(const survey_file &file)
{
    return std::to_string(file.file.generation) + "-" + std::to_string(file.file.sequence) + "." +
           std::to_string(file.last_tag);
}
