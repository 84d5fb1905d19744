// Types are compared by their names' first words alone: no other type has the same.
#include "changes/sql_column.h"

bool sql_type_is(std::string_view type, std::string_view names)
{
    constexpr std::string_view catalogue = "pg_catalog.";
    if (type.starts_with(catalogue))
        type.remove_prefix(catalogue.size());
    type = type.substr(0, type.find_first_of(" (["));
    while (!names.empty()) {
        const size_t end = names.find(' ');
        if (!type.empty() && names.substr(0, end) == type)
            return true;
        names.remove_prefix(end == names.npos ? names.size() : end + 1);
    }
    return false;
}
