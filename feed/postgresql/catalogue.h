// Which item a column becomes when the configuration does not describe its table.
#ifndef FEED_POSTGRESQL_CATALOGUE_H
#define FEED_POSTGRESQL_CATALOGUE_H

#include "feed/postgresql/pgoutput.h"
#include "feed/row.h"
#include "fwutil/fwu_config.h"
#include "util/outcome.h"

#include <cstdint>
#include <string>

// Name of a built-in type ("timestamp with time zone", "smallint[]"), or null.
const char *pgc_type_name(uint32_t type);

// The type of a column as the server writes it ("numeric(9,2)"), without asking it; empty for
// types that are not known here.
std::string pgc_type_text(uint32_t type, int32_t modifier);

// What values of a built-in type mean; those of other types are plain.
feed_type pgc_type(uint32_t type);

// Makes the dataset of a table from its columns: an item each, and a null map.
// dbname and dsetname are those of the dataset.  OUTCOME_BAD, with the column, the
// reason and the remedy, when a column cannot become an item.
outcome pgc_make_dataset(fwu_dataset &dataset, const fwu_config &config,
                         const pgo_relation &relation);

#endif
