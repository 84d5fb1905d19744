// The file of standings as text.
#ifndef FEED_POSTGRESQL_ASIDE_FILE_H
#define FEED_POSTGRESQL_ASIDE_FILE_H

#include "feed/postgresql/aside_records.h"

#include <string>
#include <string_view>

// The lines for all that the registry holds.
std::string pga_lines(const pga_registry &registry);

// Takes such lines into an empty registry; false: they are none.
bool pga_take_lines(pga_registry &registry, std::string_view lines);

#endif
