// Entries against the layouts before them.
#include "fwutil/fwu_layout_check.h"

const char FWU_MALFORMED[] = "the entry's content is malformed";
const char FWU_NO_LAYOUT[] = "no layout of the record's dataset stands before it in the file";
const char FWU_OTHER_LENGTH[] = "the record has another length than its dataset's layout";

static void make_key(std::string &key, const char *dbname, const char *dsetname)
{
    key = dbname;
    key += '\0';
    key += dsetname;
}

static const char *check_change(fwu_layout_check &check, const fwu_entry &entry)
{
    fwu_change change;
    if (!fwu_entry_change(entry, change))
        return "the record is malformed";
    make_key(check.key, change.dbname, change.dsetname);
    const auto known = check.layouts.find(check.key);
    if (known == check.layouts.end())
        return FWU_NO_LAYOUT;
    return known->second.length != change.reclen ? FWU_OTHER_LENGTH : nullptr;
}

static const char *check_layout(fwu_layout_check &check, const fwu_entry &entry)
{
    fwu_layout layout;
    if (!fwu_entry_layout(entry, layout))
        return "the layout entry is malformed";
    make_key(check.key, layout.dbname.c_str(), layout.dsetname.c_str());
    check.layouts[check.key] = {fwu_layout_image_length(layout), layout.items.size()};
    return nullptr;
}

static const char *check_source(fwu_layout_check &check, const fwu_entry &entry)
{
    fwu_layout_source of;
    if (!fwu_entry_source(entry, of))
        return "the source entry is malformed";
    make_key(check.key, of.dbname.c_str(), of.dsetname.c_str());
    const auto known = check.layouts.find(check.key);
    if (known == check.layouts.end())
        return "no layout of the source's dataset stands before it in the file";
    return fwu_source_fits(of.source, known->second.items)
               ? nullptr
               : "the source does not fit its dataset's layout";
}

const char *fwu_layout_check_entry(fwu_layout_check &check, const fwu_entry &entry)
{
    fwu_session_view session;
    fwu_mark mark;
    switch (entry.kind) {
    case FWU_KIND_INSERT:
    case FWU_KIND_UPDATE:
    case FWU_KIND_DELETE:
        return check_change(check, entry);
    case FWU_KIND_LAYOUT:
        return check_layout(check, entry);
    case FWU_KIND_SESSION:
        return fwu_entry_session(entry, session) ? nullptr : "the session entry is malformed";
    case FWU_KIND_SOURCE:
        return check_source(check, entry);
    case FWU_KIND_MARK:
        return fwu_entry_mark(entry, mark) ? nullptr : "the mark entry is malformed";
    default:
        return nullptr;
    }
}
