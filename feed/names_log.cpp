// The names that a log itself tells, when the file of them is not there: each layout stands in it
// with the table and the columns that it comes from.  What comes later in the log counts.
#include "feed/names_log.h"

#include "feed/text.h"
#include "fwutil/fwu_layouts.h"
#include "fwutil/fwu_log.h"
#include "fwutil/fwu_source_name.h"

#include <algorithm>
#include <unistd.h>

// Whether the file of names can hold the item's.
static bool can_keep(const std::string &item)
{
    return !item.empty() && std::all_of(item.begin(), item.end(), [](char c) {
        return c > ' ' && c <= '~' && c != '"' && c != '#';
    });
}

static void take_table(feed_names &names, const std::string &table, const feed_dataset_name &name)
{
    const std::string key = name.dbname + "." + name.dsetname;
    if (const auto owner = names.owners.find(key); owner != names.owners.end())
        names.tables.erase(owner->second);
    if (const auto before = names.tables.find(table); before != names.tables.end())
        names.owners.erase(before->second.dbname + "." + before->second.dsetname);
    names.owners[key] = table;
    names.tables[table] = name;
}

static void take_source(feed_names &names, const fwu_layout &layout, const fwu_source &source)
{
    if (source.schema.empty() || source.table.empty() || !fwu_database_name_ok(layout.dbname) ||
        !fwu_dataset_name_ok(layout.dsetname))
        return;
    take_table(names, fwu_source_name(source.schema, source.table),
               {.dbname = layout.dbname, .dsetname = layout.dsetname});
    for (const fwu_source_column &column : source.columns) {
        if (column.item < 0 || static_cast<size_t>(column.item) >= layout.items.size())
            continue;
        const std::string &item = layout.items[static_cast<size_t>(column.item)].name;
        const std::string whole = fwu_source_name(source.schema, source.table, column.name);
        if (item == feed_name(column.name))
            names.items.erase(whole);
        else if (can_keep(item))
            names.items[whole] = item;
    }
}

// Takes the entries of the transaction that the cursor has found.
static fwu_found take_transaction(feed_names &names, fwu_layouts &layouts, fwu_cursor &cursor)
{
    fwu_entry entry;
    fwu_found found = FWU_FOUND;
    while ((found = fwu_cursor_entry(cursor, entry)) == FWU_FOUND) {
        fwu_layout layout;
        fwu_layout_source of;
        std::string key;
        if (fwu_entry_layout(entry, layout)) {
            fwu_layout_key(key, layout.dbname, layout.dsetname);
            (void)fwu_layouts_put(layouts, key, std::move(layout)); // its source is next
        } else if (fwu_entry_source(entry, of)) {
            fwu_layout_key(key, of.dbname, of.dsetname);
            if (const fwu_layout *const known = fwu_layouts_find(layouts, key); known != nullptr)
                take_source(names, *known, of.source);
        }
    }
    return found;
}

// Damage is the business of those who read the log: what stands behind it is in the next file.
static fwu_found take_file(feed_names &names, fwu_cursor &cursor, const fwu_log_file &file)
{
    fwu_layouts layouts; // those of one file
    fwu_found found = fwu_log_open(cursor, file);
    while (found == FWU_FOUND && (found = fwu_cursor_next(cursor)) == FWU_FOUND)
        if (found = take_transaction(names, layouts, cursor); found == FWU_END)
            found = FWU_FOUND;
    return found;
}

outcome feed_names_from_log(feed_names &names, const std::string &directory)
{
    std::vector<fwu_log_file> files;
    if (access(directory.c_str(), F_OK) != 0)
        return {}; // whoever needs it says so
    if (fwu_log_list(directory, files) != 0)
        return OUTCOME_FAILED;
    fwu_found found = FWU_END;
    for (size_t i = 0; i < files.size() && found != FWU_FAILED; i++) {
        fwu_cursor cursor;
        found = take_file(names, cursor, files[i]);
        fwu_cursor_close(cursor);
    }
    // Once is enough, whatever was found.
    names.is_new = names.must_keep = !files.empty();
    return found == FWU_FAILED ? OUTCOME_FAILED : OUTCOME_OK;
}
