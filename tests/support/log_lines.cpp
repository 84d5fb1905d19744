// The log is walked with the library's own walk; record numbers are left in,
// they are the same for the same changes.
#include "tests/support/log_lines.h"

#include "fwutil/fwu_log.h"
#include "fwutil/fwutil.h"

static std::string hex(const unsigned char *bytes, int32_t length)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (int32_t i = 0; bytes != nullptr && i < length; i++) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

static std::string session_line(const fwu_entry &entry)
{
    fwu_session_view session;
    if (!fwu_entry_session(entry, session))
        return "bad session";
    std::string out = "session";
    for (int i = 0; i < FWU_SESSION_ENTRIES; i++) {
        if (session.entry[i] != nullptr)
            out += std::string(" ") + FWU_SESSION_KEYS[i] + "=<" + session.entry[i] + ">";
    }
    out += " |";
    for (const char *text : session.data)
        out += std::string(" <") + text + ">";
    return out;
}

static std::string change_line(const fwu_entry &entry)
{
    fwu_change change;
    if (!fwu_entry_change(entry, change))
        return "bad change";
    const char *const kind = change.opcode == FWU_OP_INSERT   ? "insert "
                             : change.opcode == FWU_OP_UPDATE ? "update "
                                                              : "delete ";
    return kind + std::string(change.dbname) + "." + change.dsetname + " " +
           std::to_string(change.logtime) + " " + std::to_string(change.recnum) + " <" +
           hex(change.before, change.reclen) + "|" + hex(change.after, change.reclen) + ">";
}

// "source SALES.ORDERS sales.orders null-map=2: no integer >0 #1; qty smallint >1"
static std::string source_line(const fwu_entry &entry)
{
    fwu_layout_source of;
    if (!fwu_entry_source(entry, of))
        return "bad source";
    std::string line =
        "source " + of.dbname + "." + of.dsetname + " " + of.source.schema + "." + of.source.table;
    if (of.source.null_map >= 0)
        line += " null-map=" + std::to_string(of.source.null_map);
    const char *between = ": ";
    for (const fwu_source_column &column : of.source.columns) {
        line += between + column.name + " " + column.type;
        line += column.item < 0 ? "" : " >" + std::to_string(column.item);
        line += column.key == 0 ? "" : " #" + std::to_string(column.key);
        between = "; ";
    }
    return line;
}

// "value 0a <text>"
static std::string value_line(const fwu_entry &entry)
{
    fwu_value_piece piece;
    if (!fwu_entry_value(entry, piece))
        return "bad value";
    return "value " + std::to_string(piece.item) + static_cast<char>(piece.image) + " <" +
           std::string(piece.bytes) + ">" + (piece.more ? " ..." : "");
}

// "mark t DATABASE.DATASET schema.table: reason"
static std::string mark_line(const fwu_entry &entry)
{
    fwu_mark mark;
    if (!fwu_entry_mark(entry, mark))
        return "bad mark";
    return std::string("mark ") + static_cast<char>(mark.kind) + " " + mark.dbname + "." +
           mark.dsetname + " " + mark.schema + "." + mark.table + ": " + mark.reason;
}

static std::string entry_line(const fwu_entry &entry)
{
    fwu_layout layout;
    fwu_commit_entry commit;
    switch (entry.kind) {
    case FWU_KIND_LAYOUT:
        if (!fwu_entry_layout(entry, layout))
            return "bad layout";
        return "layout " + layout.dbname + "." + layout.dsetname;
    case FWU_KIND_SOURCE:
        return source_line(entry);
    case FWU_KIND_VALUE:
        return value_line(entry);
    case FWU_KIND_MARK:
        return mark_line(entry);
    case FWU_KIND_SESSION:
        return session_line(entry);
    case FWU_KIND_COMMIT:
        if (!fwu_entry_commit(entry, commit))
            return "bad commit";
        return "commit " + std::to_string(commit.commit.time_us) + " " +
               std::to_string(commit.commit.xid) + " " + std::to_string(commit.commit.lsn);
    default:
        return change_line(entry);
    }
}

std::vector<std::string> log_lines(const std::string &directory)
{
    std::vector<std::string> lines;
    const int walked = fwu_log_walk(directory, [&lines](const fwu_walk_item &item) {
        if (item.what == FWU_WALK_ENTRY)
            lines.push_back(entry_line(item.entry));
        else if (item.what != FWU_WALK_FILE)
            lines.push_back("damage or tail at " + std::to_string(item.offset));
        return 0;
    });
    if (walked != 0)
        lines.emplace_back("the walk failed");
    return lines;
}

size_t count_lines(const std::vector<std::string> &lines, const std::string &beginning)
{
    size_t count = 0;
    for (const std::string &line : lines)
        count += line.starts_with(beginning) ? 1 : 0;
    return count;
}
