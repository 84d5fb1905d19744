// An index counts that the server counts: valid, and checked at once.  A whole row counts, but
// for a table with columns that are computed when they are read (kind 'v', from version 18 on),
// which the server cannot send.
//
// Before version 13 a publication has partitions only, as tables of their own.
#include "feed/postgresql/identity.h"

#include "feed/policy.h"
#include "feed/postgresql/published.h"
#include "feed/table.h"
#include "fwutil/fwu_source_name.h"

const char pgb_all_tables[] =
    "t AS (SELECT c.oid, n.nspname AS schema, c.relname AS name, c.relkind AS kind,"
    " c.relispartition AND v.roots AS is_part, c.relreplident = 'f' AND NOT u.unsent"
    " OR EXISTS (SELECT FROM pg_index i"
    " WHERE i.indrelid = c.oid AND i.indisvalid AND i.indimmediate AND (c.relreplident = 'd' AND"
    " i.indisprimary OR c.relreplident = 'i' AND i.indisreplident)) AS identified, u.unsent,"
    " c.relreplident = 'f' AND v.generated AND EXISTS (SELECT FROM pg_attribute a WHERE"
    " a.attrelid = c.oid AND a.attgenerated = 's' AND NOT a.attisdropped) AS needs_generated"
    " FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace"
    " CROSS JOIN (SELECT number >= 130000 AS roots, number >= 180000 AS generated"
    " FROM (SELECT current_setting('server_version_num')::integer) AS n (number)) AS v"
    " CROSS JOIN LATERAL (SELECT v.generated AND EXISTS (SELECT FROM pg_attribute a WHERE"
    " a.attrelid = c.oid AND a.attgenerated = 'v' AND NOT a.attisdropped)) AS u (unsent)"
    " WHERE (c.relkind = 'r' OR c.relkind = 'p' AND v.roots) AND c.relpersistence = 'p'"
    " AND c.oid >= 16384)";

std::string pgb_identified_tables()
{
    return "(CASE WHEN kind = 'r' THEN identified ELSE NOT EXISTS (SELECT FROM " +
           pgb_partition_tree("t.oid") +
           " m JOIN t l ON l.oid = m.relid WHERE NOT l.identified) END)";
}

std::string pgb_listed_tables()
{
    return std::string("p AS (SELECT q.relid AS oid FROM pg_publication b JOIN ") + pgb_published +
           " q ON q.publication = b.oid WHERE b.pubname = $1 AND NOT b.puballtables)";
}

std::string pgb_identity_expression(const std::string &table)
{
    return "'ALTER TABLE ' || " + table + ".oid::regclass || CASE WHEN " + table +
           ".unsent THEN ' ADD COLUMN kestro_id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY'"
           " ELSE ' REPLICA IDENTITY FULL' END";
}

std::string pgb_identity_command(const std::string &name)
{
    return "ALTER TABLE " + name + " REPLICA IDENTITY FULL";
}

bool pgb_needs_whole_rows(const fwu_config &config, const std::string &schema,
                          const std::string &table)
{
    const std::string name = fwu_source_name(schema, table);
    if (feed_is_skipped(config, name))
        return false;
    const fwu_dataset *said = feed_configured(config, schema, table);
    return (said != nullptr && !said->layout.items.empty() && said->null_map < 0) ||
           feed_policy_of(config, name, feed_server_policy(config)) == FWU_POLICY_ERROR;
}
