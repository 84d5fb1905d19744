// What becomes of values that their items cannot hold: an error, or marks in the null map.
#ifndef FEED_POLICY_H
#define FEED_POLICY_H

#include "fwutil/fwu_config.h"

#include <string>

// The policy of a table's columns, and of one of them: what the configuration says of the column,
// else of the table, else of all, else otherwise.  table is its name as fwu_source_name writes it.
fwu_policy feed_policy_of(const fwu_config &config, const std::string &table, fwu_policy otherwise);
fwu_policy feed_policy_of(const fwu_config &config, const std::string &table,
                          const std::string &column, fwu_policy otherwise);

// What holds for a server's tables where the configuration says nothing: marks, unless it
// describes what becomes of them.
fwu_policy feed_server_policy(const fwu_config &config);

#endif
