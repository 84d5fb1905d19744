// An index counts that the server counts: valid, and checked at once.
#include "feed/postgresql/identity.h"

const char pgb_all_tables[] =
    "t AS (SELECT c.oid, n.nspname AS schema, c.relname AS name, c.relkind AS kind,"
    " c.relispartition AS is_part, c.relreplident = 'f' OR EXISTS (SELECT FROM pg_index i"
    " WHERE i.indrelid = c.oid AND i.indisvalid AND i.indimmediate AND (c.relreplident = 'd' AND"
    " i.indisprimary OR c.relreplident = 'i' AND i.indisreplident)) AS identified"
    " FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace"
    " WHERE c.relkind IN ('r', 'p') AND c.relpersistence = 'p' AND c.oid >= 16384)";

const char pgb_identified_tables[] =
    "(CASE WHEN kind = 'r' THEN identified ELSE NOT EXISTS (SELECT FROM pg_partition_tree(oid) m"
    " JOIN t l ON l.oid = m.relid WHERE NOT l.identified) END)";

const char pgb_listed_tables[] =
    "p AS (SELECT c.oid FROM pg_publication b JOIN pg_publication_tables q ON q.pubname = b.pubname"
    " JOIN pg_namespace n ON n.nspname = q.schemaname"
    " JOIN pg_class c ON c.relnamespace = n.oid AND c.relname = q.tablename"
    " WHERE b.pubname = $1 AND NOT b.puballtables)";

std::string pgb_identity_command(const std::string &name)
{
    return "ALTER TABLE " + name + " REPLICA IDENTITY FULL";
}
