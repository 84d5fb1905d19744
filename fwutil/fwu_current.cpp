// The record being delivered.  Its layout is looked up when the first item is
// asked for: most callers never do.
#include "fwutil/fwu_current.h"

#include "fwutil/fwu_error.h"

#include <cstring>
#include <string>
#include <unordered_map>

struct current {
    fwu_position position;
    const fwu_change *change = nullptr; // null: no record is being delivered

    std::unordered_map<std::string, fwu_layout> layouts; // by database, NUL, dataset
    std::string key;                                     // of layout, or scratch for a look-up
    const fwu_layout *layout = nullptr;                  // looked up last; null: look it up
    bool looked_up = false;                              // for the record being delivered
    const fwu_item *item = nullptr;                      // next one to give
    const fwu_item *end = nullptr;                       // behind the last one

    std::vector<unsigned char> session_bytes; // to which session points
    fwu_session_view session;
};

static current now;

static void set_key(const char *dbname, const char *dsetname)
{
    now.key = dbname;
    now.key += '\0';
    now.key += dsetname;
}

void fwu_current_reset(const fwu_position &position)
{
    now = current();
    now.position = position;
}

void fwu_current_begin_file()
{
    now.layouts.clear();
    now.layout = nullptr;
}

void fwu_current_begin_transaction()
{
    for (const char *&entry : now.session.entry)
        entry = nullptr;
    now.session.data.clear();
}

bool fwu_current_take_layout(const fwu_entry &entry)
{
    fwu_layout layout;
    if (!fwu_entry_layout(entry, layout))
        return false;
    set_key(layout.dbname.c_str(), layout.dsetname.c_str());
    now.layouts[now.key] = std::move(layout);
    now.layout = nullptr;
    return true;
}

bool fwu_current_take_session(const fwu_entry &entry)
{
    now.session_bytes.assign(entry.payload, entry.payload + entry.payload_length);
    fwu_entry kept = entry;
    kept.payload = now.session_bytes.data();
    return fwu_entry_session(kept, now.session);
}

void fwu_current_set(const fwu_change &change, const fwu_position &position)
{
    now.change = &change;
    now.position = position;
    now.looked_up = false;
    now.item = nullptr;
    now.end = nullptr;
}

void fwu_current_clear()
{
    now.change = nullptr;
    now.item = nullptr;
    now.end = nullptr;
    fwu_current_begin_transaction();
}

fwu_position fwu_current_position()
{
    return now.position;
}

// True when layout is that of these names already: records of one dataset mostly
// come one behind the other.
static bool is_present_layout(const char *dbname, const char *dsetname)
{
    if (now.layout == nullptr || strcmp(now.key.c_str(), dbname) != 0)
        return false;
    return strcmp(now.key.c_str() + strlen(dbname) + 1, dsetname) == 0;
}

static void look_up_layout()
{
    now.looked_up = true;
    const char *dbname = now.change->dbname;
    const char *dsetname = now.change->dsetname;
    if (!is_present_layout(dbname, dsetname)) {
        set_key(dbname, dsetname);
        const auto found = now.layouts.find(now.key);
        now.layout = found != now.layouts.end() ? &found->second : nullptr;
    }
    if (now.layout == nullptr) {
        fwu_error("the log file holds no layout of %s.%s before position %s; its items are not "
                  "known",
                  dbname, dsetname, fwu_position_text(now.position).c_str());
        return;
    }
    now.item = now.layout->items.data();
    now.end = now.item + now.layout->items.size();
}

const fwu_item *fwu_current_next_item()
{
    if (now.item != now.end)
        return now.item++;
    if (now.change == nullptr)
        return nullptr;
    if (!now.looked_up) {
        look_up_layout();
        if (now.item != now.end)
            return now.item++;
    } else if (now.layout != nullptr) {
        now.item = now.layout->items.data(); // from the first one again
    }
    return nullptr;
}

const fwu_session_view &fwu_current_session()
{
    return now.session;
}
