// Lines of the configuration that are about nothing.
#ifndef FEED_POSTGRESQL_IDLE_LINES_H
#define FEED_POSTGRESQL_IDLE_LINES_H

#include "feed/postgresql/facts.h"
#include "fwutil/fwu_config.h"

#include <string>
#include <vector>

// What is to be told of lines whose table, column or type is in none of the publication's tables,
// which is mostly a name that is not written as the server has it.
std::vector<std::string> pgb_idle_lines(const fwu_config &config, const pgf_facts &facts);

#endif
