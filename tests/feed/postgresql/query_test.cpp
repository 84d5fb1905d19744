// What is to be done about the server's errors.
#include "feed/postgresql/query.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

// A server that takes plugins from its list only, as newer ones word it.
TEST(Remedies, ArePutBehindWhatTheServerSays)
{
    const struct {
        const char *state;
        const char *message;
        const char *remedy;
    } rows[] = {
        {"42501", "permission denied to use output plugin; see output_plugin_libraries",
         "add pgoutput to output_plugin_libraries"},
        {"55000", "can no longer get changes from replication slot \"a\"", "drop the slot"},
        {"55000", "can no longer access replication slot \"a\"", "drop the slot"},
        {"55000", "cannot read from logical replication slot \"a\"", "drop the slot"},
        {"58P01", "requested WAL segment 000000010000000000000001 has already been removed",
         "drop the slot"},
        {"55000", "logical decoding requires wal_level >= logical", "set wal_level = logical"},
        {"28000", "role \"a\" does not exist", "name an existing role"},
        {"3D000", "database \"a\" does not exist", "name an existing database"},
        {"42501", "permission denied to create event trigger \"a\"", "--create=minimal"},
        {"42501", "must be superuser to create FOR ALL TABLES publication", "--create=minimal"},
        {"42501", "must be owner of table a", "the tables' owner"},
        {"42501", "must be superuser or replication role to use replication slots",
         "ALTER ROLE ... REPLICATION"},
        {"42501", "permission denied for schema a", "GRANT USAGE ON SCHEMA ... TO ..."},
        {"42501", "permission denied for table a", "GRANT SELECT ON ... TO ..."},
        {"42501", "query would be affected by row-level security policy for table \"a\"",
         "ALTER ROLE ... BYPASSRLS"},
        {"42501", "permission denied for function a", "give the role the right that is missing"},
    };
    for (const auto &row : rows) {
        const char *const found = pgs_find_remedy(row.state, row.message);
        EXPECT_THAT(found == nullptr ? "" : found, HasSubstr(row.remedy)) << row.message;
    }
    EXPECT_EQ(pgs_find_remedy("22012", "division by zero"), nullptr);
}
