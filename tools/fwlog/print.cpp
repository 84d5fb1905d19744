// Layouts belong to the file in which they stand: each file begins without any, and an image
// is shown by the layout that came before it there.  What cannot be read as its kind says is
// printed as bytes, never left out.
#include "tools/fwlog/print.h"

#include "fwutil/fwu_start.h"
#include "fwutil/fwutil.h"
#include "tools/fwlog/dump_value.h"

static std::string time_text(int64_t second, int32_t micros, size_t length)
{
    std::string text;
    return dump_time(text, second, micros, length) ? text : std::to_string(second) + " s";
}

static std::string time_text(int64_t time_us)
{
    return time_text(fwu_second_of(time_us), fwu_micros_of(time_us), FWU_TIME_SIZE);
}

static void put_dataset(std::string &out, std::string_view database, std::string_view dataset)
{
    dump_name(out, database);
    out += ".";
    dump_name(out, dataset);
}

static bool put_layout(fwlog_printer &printer, const fwu_entry &entry)
{
    fwu_layout layout;
    if (!fwu_entry_layout(entry, layout))
        return false;
    printer.out += "layout ";
    put_dataset(printer.out, layout.dbname, layout.dsetname);
    printer.out += ": " + std::to_string(layout.items.size()) + " items, " +
                   std::to_string(fwu_layout_image_length(layout)) + " bytes\n";
    for (const fwu_item &item : layout.items) {
        const char type = static_cast<char>(item.type);
        printer.out += "    ";
        dump_name(printer.out, item.name);
        printer.out += " ";
        dump_name(printer.out, {&type, 1});
        printer.out += " " + std::to_string(item.size);
        if (item.count != 1)
            printer.out += " x" + std::to_string(item.count);
        if (item.item_aux != 0)
            printer.out += " scale=" + std::to_string(item.item_aux);
        printer.out += "\n";
    }
    printer.layouts[{layout.dbname, layout.dsetname}] = std::move(layout);
    return true;
}

// An item of the source's dataset by its name where the file's layout has it.
static void put_item(fwlog_printer &printer, const fwu_layout *layout, int32_t item)
{
    if (layout != nullptr && static_cast<size_t>(item) < layout->items.size())
        dump_name(printer.out, layout->items[static_cast<size_t>(item)].name);
    else
        printer.out += "item " + std::to_string(item);
}

static bool put_source(fwlog_printer &printer, const fwu_entry &entry)
{
    fwu_layout_source of;
    if (!fwu_entry_source(entry, of))
        return false;
    const fwu_source &source = of.source;
    const auto found = printer.layouts.find({of.dbname, of.dsetname});
    const fwu_layout *const layout = found == printer.layouts.end() ? nullptr : &found->second;
    printer.out += "source ";
    put_dataset(printer.out, of.dbname, of.dsetname);
    printer.out += ": table ";
    dump_table(printer.out, source.schema, source.table);
    printer.out += ", " + std::to_string(source.columns.size()) + " columns";
    if (source.null_map >= 0) {
        printer.out += ", nulls in ";
        put_item(printer, layout, source.null_map);
    }
    printer.out += "\n";
    for (const fwu_source_column &column : source.columns) {
        printer.out += "    ";
        dump_utf8(printer.out, column.name);
        printer.out += column.type.empty() ? "" : " ";
        dump_utf8(printer.out, column.type);
        if (column.item >= 0) {
            printer.out += " -> ";
            put_item(printer, layout, column.item);
        } else {
            printer.out += ", left out";
        }
        if (column.key > 0)
            printer.out += ", key " + std::to_string(column.key);
        printer.out += "\n";
    }
    return true;
}

static bool put_mark(fwlog_printer &printer, const fwu_entry &entry)
{
    fwu_mark mark;
    if (!fwu_entry_mark(entry, mark))
        return false;
    printer.out += mark.kind == FWU_MARK_TRUNCATE ? "mark truncate" : "mark gap";
    if (!mark.dbname.empty()) {
        printer.out += " ";
        put_dataset(printer.out, mark.dbname, mark.dsetname);
    }
    if (!mark.table.empty()) {
        printer.out += " table ";
        dump_table(printer.out, mark.schema, mark.table);
    }
    if (!mark.reason.empty()) {
        printer.out += ": ";
        dump_utf8(printer.out, mark.reason);
    }
    printer.out += "\n";
    return true;
}

static void put_session_line(std::string &out, const char *name, const char *text)
{
    out += std::string("    ") + name + " ";
    dump_text(out, text);
    out += "\n";
}

static bool put_session(fwlog_printer &printer, const fwu_entry &entry)
{
    fwu_session_view session;
    if (!fwu_entry_session(entry, session))
        return false;
    printer.out += "session\n";
    for (int i = 0; i < FWU_SESSION_ENTRIES; i++) {
        if (session.entry[i] != nullptr)
            put_session_line(printer.out, FWU_SESSION_KEYS[i], session.entry[i]);
    }
    for (const char *text : session.data)
        put_session_line(printer.out, "data", text);
    return true;
}

static void put_image(fwlog_printer &printer, const char *title, const fwu_change &change,
                      const unsigned char *image)
{
    if (image == nullptr)
        return;
    const auto length = static_cast<size_t>(change.reclen);
    const auto found = printer.layouts.find({change.dbname, change.dsetname});
    printer.out += title;
    if (printer.hex || found == printer.layouts.end() ||
        !dump_image(printer.out, found->second, printer.big_endian, printer.encoding, image,
                    length)) {
        printer.out += " ";
        dump_hex(printer.out, image, length);
    }
    printer.out += "\n";
}

static bool put_change(fwlog_printer &printer, const fwu_entry &entry)
{
    fwu_change change;
    if (!fwu_entry_change(entry, change))
        return false;
    const char *const kind = change.opcode == FWU_OP_INSERT   ? "insert "
                             : change.opcode == FWU_OP_UPDATE ? "update "
                                                              : "delete ";
    printer.out += kind;
    put_dataset(printer.out, change.dbname, change.dsetname);
    printer.out += " " + time_text(change.logtime, 0, FWU_TIME_MICROS_AT - 1) + " record " +
                   std::to_string(change.recnum) + ", " + std::to_string(change.reclen) +
                   " bytes\n";
    put_image(printer, "    before", change, change.before);
    put_image(printer, "    after", change, change.after);
    return true;
}

// The layout is that of the record to come: the value's item has no name before it.
static bool put_value(fwlog_printer &printer, const fwu_entry &entry)
{
    fwu_value_piece piece;
    if (!fwu_entry_value(entry, piece))
        return false;
    printer.out += "value of item " + std::to_string(piece.item) +
                   (piece.image == FWU_IMAGE_BEFORE ? " before, " : " after, ") +
                   std::to_string(piece.bytes.size()) + " bytes" +
                   (piece.more ? ", more follows" : "") + "\n    ";
    if (printer.hex)
        dump_hex(printer.out, reinterpret_cast<const unsigned char *>(piece.bytes.data()),
                 piece.bytes.size());
    else
        dump_utf8_text(printer.out, piece.bytes);
    printer.out += "\n";
    return true;
}

static bool put_commit(fwlog_printer &printer, const fwu_entry &entry)
{
    fwu_commit_entry commit;
    if (!fwu_entry_commit(entry, commit))
        return false;
    printer.out += "commit " + time_text(commit.commit.time_us) + " xid " +
                   std::to_string(commit.commit.xid) + " lsn " + fwu_lsn_text(commit.commit.lsn) +
                   ", " + std::to_string(commit.entries) + " entries\n";
    return true;
}

static bool put_entry(fwlog_printer &printer, const fwu_entry &entry)
{
    switch (entry.kind) {
    case FWU_KIND_LAYOUT:
        return put_layout(printer, entry);
    case FWU_KIND_SESSION:
        return put_session(printer, entry);
    case FWU_KIND_INSERT:
    case FWU_KIND_UPDATE:
    case FWU_KIND_DELETE:
        return put_change(printer, entry);
    case FWU_KIND_COMMIT:
        return put_commit(printer, entry);
    case FWU_KIND_SOURCE:
        return put_source(printer, entry);
    case FWU_KIND_MARK:
        return put_mark(printer, entry);
    case FWU_KIND_VALUE:
        return put_value(printer, entry);
    default:
        return false;
    }
}

static void put_unknown(fwlog_printer &printer, const fwu_entry &entry)
{
    printer.out += "entry of kind " + std::to_string(entry.kind) + "\n    ";
    dump_hex(printer.out, entry.payload, entry.payload_length);
    printer.out += "\n";
}

void fwlog_print_item(fwlog_printer &printer, const fwu_walk_item &item)
{
    const fwu_log_file &file = *item.file;
    const std::string number =
        std::to_string(file.generation) + "-" + std::to_string(file.sequence);
    const std::string at = " @" + std::to_string(item.offset) + " ";
    switch (item.what) {
    case FWU_WALK_FILE:
        printer.layouts.clear();
        printer.big_endian = item.header.big_endian;
        printer.encoding = item.header.encoding;
        printer.out += number + " file " + file.name + ", " +
                       (item.header.big_endian ? "big-endian" : "little-endian") +
                       (item.header.encoding == FWU_UTF8 ? ", UTF-8" : "") + ", created " +
                       time_text(item.header.created_us) + "\n";
        break;
    case FWU_WALK_ENTRY:
        printer.out += number + "." + std::to_string(item.entry.tag) + at;
        if (!put_entry(printer, item.entry))
            put_unknown(printer, item.entry);
        break;
    case FWU_WALK_TAIL:
        printer.out +=
            number + at + "tail: " + std::to_string(item.length) + " bytes behind the last commit";
        printer.out += item.reason == nullptr ? "\n" : std::string(", ") + item.reason + "\n";
        break;
    case FWU_WALK_DAMAGE:
        printer.out +=
            number + at + "damage: " + (item.reason == nullptr ? "" : item.reason) + "\n";
        break;
    }
}
