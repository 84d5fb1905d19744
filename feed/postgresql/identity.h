// What identifies the rows of tables, as the server's catalogue has it: queries and commands.
//
// A table whose updates are published needs something that identifies its rows, its primary key
// or all of its columns; else the server refuses the application's own updates and deletes.
#ifndef FEED_POSTGRESQL_IDENTITY_H
#define FEED_POSTGRESQL_IDENTITY_H

#include "fwutil/fwu_config.h"

#include <string>

// The tables that a publication of all tables has, as rows of "t": oid, schema, name, kind ('r',
// 'p' for a partitioned one), is_part (of another one), identified,
// unsent (it has columns for which the server takes no whole rows as identity), needs_generated
// (its whole rows are an identity only where the publication has its generated columns).
extern const char pgb_all_tables[];

// Which of them, no parts of others, a publication can have without a table being touched: a
// condition on "t".
std::string pgb_identified_tables();

// The members of publication $1's list of tables, as rows of "p": oid.  Empty for one of all
// tables.
std::string pgb_listed_tables();

// The command that gives a row of "t", here of this name, an identity, as an SQL expression.
std::string pgb_identity_expression(const std::string &table);

// "ALTER TABLE sales.orders REPLICA IDENTITY FULL"; name is as SQL writes it.
std::string pgb_identity_command(const std::string &name);

// Whether a change of the table has to come with its whole old row: nothing marks what is not
// known.
bool pgb_needs_whole_rows(const fwu_config &config, const std::string &schema,
                          const std::string &table);

#endif
