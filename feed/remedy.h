// The lines that a user writes into the configuration against what is told of a value.  A column
// or table has one line: where it is there already, what to change in that is said.
#ifndef FEED_REMEDY_H
#define FEED_REMEDY_H

#include "feed/table.h"
#include "feed/value.h"

#include <string>

// What gives a column, whose item the configuration does not describe, an item that holds its
// values of so many bytes; 0: it depends on the texts to come.
std::string feed_wider_remedy(const feed_table &table, const fwu_item &item,
                              const feed_column &column, size_t length);

// What takes the value of a column that was refused.
std::string feed_value_remedy(const feed_table &table, const fwu_item &item,
                              const feed_column &column, const feed_refusal &refusal);

// What has values of a column marked, "column sales.orders.note values=mark", and what has it for
// whatever feeds an item, or the whole table.  A dataset without a null map needs that first.
std::string feed_mark_remedy(const feed_table &table, const std::string &column);
std::string feed_mark_remedy(const feed_table &table, size_t item);
std::string feed_mark_remedy(const feed_table &table);

// What a dataset without a place for marks has to have; empty: it has it.
std::string feed_null_map_remedy(const feed_table &table);

#endif
