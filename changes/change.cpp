// What the null map says of an item, and what stands beside the record.
#include "changes/change.h"

#include "fwutil/fwu_source_name.h"

#include <algorithm>

std::string change_table_name(std::string_view schema, std::string_view table)
{
    if (!schema.empty() && !table.empty())
        return fwu_source_name(schema, table);
    std::string name;
    if (!table.empty())
        fwu_source_name_put(name, table);
    return name;
}

// The whole value of an item; false: there is none.
static bool find_value(std::string_view &whole, std::span<const fwu_value> values, size_t item)
{
    const auto is_before = [](const fwu_value &value, size_t wanted) {
        return static_cast<size_t>(value.item) < wanted;
    };
    const auto found = std::lower_bound(values.begin(), values.end(), item, is_before);
    if (found == values.end() || static_cast<size_t>(found->item) != item)
        return false;
    whole = found->text;
    return true;
}

change_place change_place_of_flagged(std::string_view &whole, const change_row &row, size_t item,
                                     unsigned char flag)
{
    if (flag == FWU_FLAG_NULL)
        return CHANGE_NULL;
    if (flag == FWU_FLAG_UNKNOWN)
        return CHANGE_NOT_KNOWN;
    if (find_value(whole, row.values, item))
        return CHANGE_WHOLE;
    return flag == FWU_FLAG_BLANK ? CHANGE_NOT_KNOWN : CHANGE_IN_IMAGE;
}
