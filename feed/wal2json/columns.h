// What the lines of a table's changes tell of its columns.
#ifndef FEED_WAL2JSON_COLUMNS_H
#define FEED_WAL2JSON_COLUMNS_H

#include "feed/source.h"
#include "feed/wal2json/line.h"

#include <string>
#include <vector>

// Takes names, types and key from a change of the table, where they are not known yet or have
// changed.
void w2j_describe(feed_table &table, const fwu_config &config, const w2j_line &line,
                  std::vector<std::string> &notes);

#endif
