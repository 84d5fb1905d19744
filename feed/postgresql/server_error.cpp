// Errors get their remedy by SQLSTATE and text, the first row that fits.
#include "feed/postgresql/server_error.h"

#include <cstring>

struct remedy_row {
    const char *state;   // SQLSTATE, its class, or empty: any
    const char *message; // that the server's message holds; null: any
    const char *remedy;
};

static constexpr char SLOT_IS_LOST[] =
    "the server has removed what the slot needs: drop the slot (SELECT "
    "pg_drop_replication_slot('...')), and begin a new log directory with --create --snapshot; a "
    "greater max_slot_wal_keep_size keeps more for the next time";

static constexpr remedy_row remedies[] = {
    {"", "output_plugin_libraries",
     "let the server load the plugin: add pgoutput to output_plugin_libraries in postgresql.conf, "
     "then SELECT pg_reload_conf()"},
    {"55000", "wal_level", "set wal_level = logical in postgresql.conf and restart the server"},
    {"53400", "replication slots",
     "raise max_replication_slots in postgresql.conf, or drop a slot that nobody uses"},
    {"53300", nullptr,
     "raise max_connections or max_wal_senders in postgresql.conf, or end other sessions"},
    {"42501", "event trigger",
     "let a superuser run the command with --create once, or leave the tables as they are with "
     "--create=minimal"},
    {"42501", "FOR ALL TABLES",
     "let a superuser run the command with --create once, or make a publication of the role's own "
     "tables with --create=minimal"},
    {"42501", "permission denied for database",
     "let a superuser run the command with --create once, or make the publication by hand"},
    {"42501", "must be owner of",
     "let the tables' owner or a superuser run the command with --create once, or make a "
     "publication of some tables by hand"},
    {"42501", "replication", "give the role the right: ALTER ROLE ... REPLICATION (and LOGIN)"},
    {"42501", "permission denied for schema",
     "give the role the right: GRANT USAGE ON SCHEMA ... TO ..."},
    {"42501", "permission denied for table", "give the role the right: GRANT SELECT ON ... TO ..."},
    {"42501", "row-level security", "let the role see all rows: ALTER ROLE ... BYPASSRLS"},
    {"42501", nullptr,
     "give the role the right that is missing, or use --conninfo with another role"},
    {"28", "does not exist",
     "name an existing role in --conninfo (user=...), or make it: CREATE ROLE"
     " ... LOGIN REPLICATION"},
    {"28", nullptr, "check role, password and pg_hba.conf (its lines for replication, too)"},
    {"3D000", nullptr, "name an existing database in --conninfo (dbname=...)"},
    {"42704", "replication slot", "create it with --create, or name another with --slot"},
    {"42704", "publication",
     "the server cannot send what was changed while it did not exist: go on with "
     "--create --accept-gap, which makes it where it is missing, leaves a gap mark for all tables "
     "in the log and follows them from there on, then take those in with --resume that the log may "
     "lack rows of; or name another with --publication"},
    {"", "can no longer get changes", SLOT_IS_LOST},
    {"", "can no longer access replication slot", SLOT_IS_LOST},
    {"", "cannot read from logical replication slot", SLOT_IS_LOST},
    {"", "has been invalidated", SLOT_IS_LOST},
    {"", "requested WAL segment", SLOT_IS_LOST},
};

const char *pgs_find_remedy(const char *state, const char *message)
{
    for (const remedy_row &row : remedies)
        if (strncmp(state, row.state, strlen(row.state)) == 0 &&
            (row.message == nullptr || strstr(message, row.message) != nullptr))
            return row.remedy;
    return nullptr;
}

std::string pgs_name_remedy(std::string remedy, const pgs_lacking &lacking)
{
    const struct {
        std::string_view before; // the place
        const std::string &name;
    } rows[] = {{"GRANT USAGE ON SCHEMA ", lacking.schema},
                {"GRANT SELECT ON ", lacking.table},
                {" TO ", lacking.role},
                {"ALTER ROLE ", lacking.role}};
    for (const auto &row : rows) {
        const std::string place = std::string(row.before) + "...";
        if (const size_t at = remedy.find(place); at != remedy.npos && !row.name.empty())
            remedy.replace(at + row.before.size(), place.size() - row.before.size(), row.name);
    }
    return remedy;
}

std::string pgs_error_field(const PGresult *result, int field)
{
    const char *const text = PQresultErrorField(result, field);
    return text == nullptr ? "" : pgs_one_line(text);
}

bool pgs_begins_copy(const PGresult *result)
{
    const ExecStatusType status = PQresultStatus(result);
    return status == PGRES_COPY_IN || status == PGRES_COPY_OUT || status == PGRES_COPY_BOTH;
}
