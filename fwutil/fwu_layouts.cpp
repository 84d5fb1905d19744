// Layouts are forgotten all at once: the datasets that are in use come back with the next records,
// and nothing has to be counted at each.
#include "fwutil/fwu_layouts.h"

void fwu_layout_key(std::string &key, const std::string &dbname, const std::string &dsetname)
{
    key = dbname;
    key += '\0';
    key += dsetname;
}

fwu_layout *fwu_layouts_find(fwu_layouts &layouts, const std::string &key)
{
    const auto found = layouts.known.find(key);
    return found == layouts.known.end() ? nullptr : &found->second;
}

bool fwu_layouts_put(fwu_layouts &layouts, const std::string &key, fwu_layout layout)
{
    const size_t items = layout.items.size();
    if (const fwu_layout *const before = fwu_layouts_find(layouts, key); before != nullptr)
        layouts.items -= before->items.size();
    const bool fits = layouts.items + items <= FWU_LAYOUTS_ITEMS_MAX;
    if (!fits)
        fwu_layouts_clear(layouts);
    layouts.items += items;
    layouts.known[key] = std::move(layout);
    return fits;
}

void fwu_layouts_clear(fwu_layouts &layouts)
{
    layouts.known.clear();
    layouts.items = 0;
}
