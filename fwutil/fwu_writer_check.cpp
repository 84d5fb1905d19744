// Names, texts and lengths that entries have room for, and that belong together.
#include "fwutil/fwu_writer_check.h"

#include "fwutil/fwu_error.h"
#include "fwutil/fwutil.h"

#include <string>

static bool text_ok(const std::string &text)
{
    return text.find('\0') == text.npos;
}

int fwu_check_session(const fwu_session &session)
{
    bool ok = true;
    for (const char *key : FWU_SESSION_KEYS)
        if (const std::optional<std::string> &text = *fwu_session_entry(session, key))
            ok = ok && text_ok(*text);
    for (const std::string &text : session.data)
        ok = ok && text_ok(text);
    if (!ok)
        return fwu_error("a session text holds a zero byte");
    if (fwu_entry_session_length(session) > FWU_ENTRY_MAX)
        return fwu_error("the session's texts are too long for a log entry (%zu bytes)",
                         FWU_ENTRY_MAX);
    return 0;
}

static bool name_ok(const std::string &name, size_t max)
{
    return !name.empty() && name.size() <= max && text_ok(name);
}

static bool source_text_ok(const std::string &text)
{
    return text_ok(text) && text.size() <= FWU_SOURCE_TEXT_MAX;
}

static bool source_texts_ok(const fwu_source &source)
{
    bool ok = source_text_ok(source.schema) && name_ok(source.table, FWU_SOURCE_TEXT_MAX);
    for (const fwu_source_column &column : source.columns)
        ok = ok && name_ok(column.name, FWU_SOURCE_TEXT_MAX) && source_text_ok(column.type);
    return ok;
}

// A name in a message, which ends at a zero byte.
static std::string shown(const std::string &name)
{
    return name.substr(0, name.find('\0'));
}

static std::string name_of(const fwu_layout &layout)
{
    return shown(layout.dbname) + "." + shown(layout.dsetname);
}

std::string fwu_source_problem(const fwu_layout &layout)
{
    if (layout.source == nullptr)
        return "";
    const fwu_source &source = *layout.source;
    if (!source_texts_ok(source))
        return name_of(layout) + ": the source's table and columns have names of 1 to " +
               std::to_string(FWU_SOURCE_TEXT_MAX) +
               " bytes, schema and types have at most as many, none zero";
    if (!fwu_source_fits(source, layout.items.size()) || source.null_map < -1 ||
        (source.null_map >= 0 &&
         !fwu_null_map_ok(layout.items, static_cast<size_t>(source.null_map))))
        return name_of(layout) + ": the source of the records does not fit their items";
    if (fwu_entry_source_length(layout) > FWU_ENTRY_MAX)
        return name_of(layout) + ": the source's texts are too long for a log entry (" +
               std::to_string(FWU_ENTRY_MAX) + " bytes)";
    return "";
}

std::string fwu_items_problem(const fwu_layout &layout)
{
    if (!name_ok(layout.dbname, FWU_NAME_MAX) || !name_ok(layout.dsetname, FWU_NAME_MAX))
        return "\"" + shown(layout.dbname) + "\".\"" + shown(layout.dsetname) +
               "\": database and dataset names have 1 to " + std::to_string(FWU_NAME_MAX) +
               " bytes, none zero";
    for (const fwu_item &item : layout.items) {
        if (!name_ok(item.name, FWU_ITEM_NAME_MAX))
            return name_of(layout) + ": item name \"" + shown(item.name) +
                   "\": item names have 1 to " + std::to_string(FWU_ITEM_NAME_MAX) +
                   " bytes, none zero";
        if (item.size < 1 || item.count < 1)
            return name_of(layout) + ": item " + shown(item.name) +
                   ": size and count must be at least 1";
    }
    if (fwu_entry_layout_length(layout) > FWU_ENTRY_MAX)
        return name_of(layout) + ": too many items for a log entry";
    return "";
}

int fwu_check_layout(const fwu_layout &layout)
{
    std::string problem = fwu_items_problem(layout);
    if (problem.empty())
        problem = fwu_source_problem(layout);
    return problem.empty() ? 0 : fwu_error("%s", problem.c_str());
}

int fwu_check_change(const fwu_layout &layout, const fwu_change &change)
{
    const char *db = layout.dbname.c_str();
    const char *set = layout.dsetname.c_str();
    const bool wants_before = change.opcode != FWU_OP_INSERT;
    const bool wants_after = change.opcode != FWU_OP_DELETE;
    if (change.opcode != FWU_OP_INSERT && change.opcode != FWU_OP_UPDATE &&
        change.opcode != FWU_OP_DELETE)
        return fwu_error("%s.%s: operation %d is none of update (1), insert (3) and delete (5)", db,
                         set, change.opcode);
    if ((change.before != nullptr) != wants_before || (change.after != nullptr) != wants_after)
        return fwu_error("%s.%s: operation %d takes %s", db, set, change.opcode,
                         !wants_before  ? "an after image only"
                         : !wants_after ? "a before image only"
                                        : "a before and an after image");
    if (change.reclen < 0 || change.reclen != fwu_layout_image_length(layout))
        return fwu_error("%s.%s: a record of %d bytes, but the layout's items add up to %lld", db,
                         set, change.reclen,
                         static_cast<long long>(fwu_layout_image_length(layout)));
    if (fwu_entry_change_length(change) > FWU_ENTRY_MAX)
        return fwu_error("%s.%s: a record of %d bytes is too long for a log entry (%zu bytes)", db,
                         set, change.reclen, FWU_ENTRY_MAX);
    return 0;
}

int fwu_check_mark(const fwu_mark &mark)
{
    if (mark.kind != FWU_MARK_TRUNCATE && mark.kind != FWU_MARK_GAP)
        return fwu_error("mark %d is neither truncate (t) nor gap (g)", mark.kind);
    const bool named = name_ok(mark.dbname, FWU_NAME_MAX) && name_ok(mark.dsetname, FWU_NAME_MAX);
    if (!named && !(mark.dbname.empty() && mark.dsetname.empty()))
        return fwu_error("a mark of \"%s\".\"%s\": database and dataset names have 1 to %d bytes, "
                         "none zero, or both are empty",
                         mark.dbname.c_str(), mark.dsetname.c_str(), FWU_NAME_MAX);
    if (!text_ok(mark.schema) || !text_ok(mark.table) || !text_ok(mark.reason))
        return fwu_error("a text of a mark holds a zero byte");
    if (fwu_entry_mark_length(mark) > FWU_ENTRY_MAX)
        return fwu_error("a mark's texts are too long for a log entry (%zu bytes)", FWU_ENTRY_MAX);
    return 0;
}
