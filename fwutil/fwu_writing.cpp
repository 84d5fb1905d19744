// What follows from a configuration that was read, and what names in it may be.
#include "fwutil/fwu_writing.h"

#include <algorithm>

static bool is_letter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

static bool name_ok(std::string_view name, size_t max, std::string_view others)
{
    if (name.empty() || name.size() > max || !is_letter(name[0]))
        return false;
    for (const char c : name)
        if (!is_letter(c) && !(c >= '0' && c <= '9') && others.find(c) == others.npos)
            return false;
    return true;
}

constexpr std::string_view DATABASE_OTHERS = "-";
constexpr std::string_view DATASET_OTHERS = "-+*/?'#%&";

bool fwu_database_name_ok(std::string_view name)
{
    return name_ok(name, FWU_NAME_MAX, DATABASE_OTHERS);
}

bool fwu_dataset_name_ok(std::string_view name)
{
    return name_ok(name, FWU_NAME_MAX, DATASET_OTHERS);
}

struct by_table {
    bool operator()(const fwu_column &column, std::string_view table) const
    {
        return column.table < table;
    }
    bool operator()(std::string_view table, const fwu_column &column) const
    {
        return table < column.table;
    }
};

std::span<const fwu_column> fwu_columns_of(const fwu_writing &writing, std::string_view table)
{
    const auto [begin, end] =
        std::equal_range(writing.columns.begin(), writing.columns.end(), table, by_table());
    return {begin, end};
}

bool fwu_writing_describes(const fwu_writing &writing)
{
    return writing.has_database || !writing.datasets.empty() || !writing.columns.empty();
}

bool fwu_writing_stops_at_truncate(const fwu_writing &writing)
{
    if (writing.truncate == FWU_TRUNCATE_UNSAID)
        return fwu_writing_describes(writing);
    return writing.truncate == FWU_TRUNCATE_STOP;
}
