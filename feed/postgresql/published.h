// The tables of publications, and their parts, from the catalogue alone.  The server's own view of
// them (pg_publication_tables) opens each table from version 16 on, and so waits for whoever has
// one locked, though another one is asked for.
#ifndef FEED_POSTGRESQL_PUBLISHED_H
#define FEED_POSTGRESQL_PUBLISHED_H

#include <string>

// What stands in FROM for the view, with its columns pubname, schemaname and tablename, and
// publication, relid (OIDs) and generated (generated columns that are stored are published where
// no list of columns says otherwise).
extern const char pgb_published[];

// From version 15 on: a list of columns and a condition of a table "p" of these, of which the
// view's attnames and rowfilter are made: what stands behind it in FROM, and its two members.
extern const char pgb_published_lists[];
extern const char pgb_published_names[];
extern const char pgb_published_filter[];

// What stands in FROM for pg_partition_tree of a table, which locks all parts: relid, level and
// isleaf, one row for a table without parts.  oid is an SQL expression.
std::string pgb_partition_tree(const std::string &oid);

#endif
