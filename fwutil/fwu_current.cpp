// The record being delivered.  Its layout is looked up when the first item is
// asked for: most callers never do.
#include "fwutil/fwu_current.h"

#include "fwutil/fwu_error.h"

#include <string>
#include <unordered_map>

struct current {
    fwu_position position;
    const fwu_change *change = nullptr; // null: no record is being delivered

    std::unordered_map<std::string, fwu_layout> layouts; // by database, NUL, dataset
    std::string key;                                     // scratch for a look-up
    bool looked_up = false;
    const fwu_layout *layout = nullptr; // of the record, once looked up
    size_t item = 0;                    // next one to give

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
    now.item = 0;
}

void fwu_current_clear()
{
    now.change = nullptr;
    fwu_current_begin_transaction();
}

fwu_position fwu_current_position()
{
    return now.position;
}

const fwu_item *fwu_current_next_item()
{
    if (now.change == nullptr)
        return nullptr;
    if (!now.looked_up) {
        now.looked_up = true;
        set_key(now.change->dbname, now.change->dsetname);
        const auto found = now.layouts.find(now.key);
        now.layout = found != now.layouts.end() ? &found->second : nullptr;
        if (now.layout == nullptr)
            fwu_error("the log file holds no layout of %s.%s before position %s; its items are "
                      "not known",
                      now.change->dbname, now.change->dsetname,
                      fwu_position_text(now.position).c_str());
    }
    if (now.layout == nullptr)
        return nullptr;
    if (now.item < now.layout->items.size())
        return &now.layout->items[now.item++];
    now.item = 0;
    return nullptr;
}

const fwu_session_view &fwu_current_session()
{
    return now.session;
}
