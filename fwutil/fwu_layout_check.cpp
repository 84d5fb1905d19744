// Entries against the layouts before them.
#include "fwutil/fwu_layout_check.h"

#include <algorithm>

const char FWU_MALFORMED[] = "the entry's content is malformed";
const char FWU_NO_LAYOUT[] = "no layout of the record's dataset stands before it in the file";
const char FWU_OTHER_LENGTH[] = "the record has another length than its dataset's layout";

static const char PIECE_MISSING[] = "the next piece of the value before it is missing";

static void make_key(std::string &key, const char *dbname, const char *dsetname)
{
    key = dbname;
    key += '\0';
    key += dsetname;
}

// Whether the values before a record are of items and images that it has.
static bool values_fit(const fwu_layout_check &check, const fwu_change &change, size_t items)
{
    return std::all_of(
        check.values.begin(), check.values.end(), [&](const std::pair<int32_t, fwu_image> &value) {
            const auto &[item, image] = value;
            return static_cast<size_t>(item) < items &&
                   (image == FWU_IMAGE_BEFORE ? change.before : change.after) != nullptr;
        });
}

static const char *check_value(fwu_layout_check &check, const fwu_entry &entry)
{
    fwu_value_piece piece;
    if (!fwu_entry_value(entry, piece))
        return "the value entry is malformed";
    const std::pair value(piece.item, piece.image);
    if (check.more && value != check.value)
        return PIECE_MISSING;
    if (!check.more && !check.values.insert(value).second)
        return "two whole values stand for one item of an image";
    check.value = value;
    check.more = piece.more;
    return nullptr;
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
    if (known->second.length != change.reclen)
        return FWU_OTHER_LENGTH;
    if (!values_fit(check, change, known->second.items))
        return "a whole value before the record is of no item or image that it has";
    check.values.clear();
    return nullptr;
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
    if (check.more && entry.kind != FWU_KIND_VALUE)
        return PIECE_MISSING;
    if (!check.values.empty() && entry.kind != FWU_KIND_VALUE && !fwu_entry_is_change(entry))
        return "the record of the whole values before it is missing";
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
    case FWU_KIND_VALUE:
        return check_value(check, entry);
    default:
        return nullptr;
    }
}
