// Schemas of a publication are in a table of the catalogue that came with version 15; what depends
// on them is in pg_depend, which every version has.
#include "feed/postgresql/published.h"

// A publication goes by roots (publish_via_partition_root) or by leaves; of all tables, of those
// listed and of those in its schemas.  A member that is below another one counts as that.
//
// The array is for the planner, which takes it for 1,000 tables, as it takes the view; of its own
// it would expect a handful, and compare each table with each other one.
const char pgb_published[] =
    "(WITH RECURSIVE b AS (SELECT p.oid, p.pubname, p.puballtables,"
    " coalesce((to_jsonb(p) ->> 'pubviaroot')::boolean, false) AS roots,"
    " coalesce(to_jsonb(p) ->> 'pubgencols' = 's', false) AS generated"
    " FROM pg_catalog.pg_publication p),"
    " named (publication, relid) AS (SELECT r.prpubid, r.prrelid"
    " FROM pg_catalog.pg_publication_rel r UNION SELECT d.refobjid, c.oid"
    " FROM pg_catalog.pg_depend d JOIN pg_catalog.pg_depend s ON s.classid = d.classid"
    " AND s.objid = d.objid AND s.refclassid = 'pg_catalog.pg_namespace'::regclass"
    " JOIN pg_catalog.pg_class c ON c.relnamespace = s.refobjid"
    " WHERE d.refclassid = 'pg_catalog.pg_publication'::regclass"
    " AND d.classid = to_regclass('pg_catalog.pg_publication_namespace')),"
    " part AS (SELECT i.inhparent, i.inhrelid FROM pg_catalog.pg_inherits i"
    " JOIN pg_catalog.pg_class c ON c.oid = i.inhrelid AND c.relispartition),"
    " below (publication, relid) AS (SELECT m.publication, i.inhrelid FROM named m"
    " JOIN part i ON i.inhparent = m.relid UNION SELECT m.publication, i.inhrelid FROM below m"
    " JOIN part i ON i.inhparent = m.relid)"
    " SELECT b.oid AS publication, b.pubname, b.generated, c.oid AS relid,"
    " n.nspname AS schemaname, c.relname AS tablename"
    " FROM b CROSS JOIN LATERAL (SELECT array_agg(c.oid) AS relids FROM pg_catalog.pg_class c"
    " WHERE (c.relkind = 'r' OR c.relkind = 'p' AND b.roots)"
    " AND c.relpersistence = 'p' AND c.oid >= 16384 AND CASE"
    " WHEN b.puballtables THEN NOT (b.roots AND c.relispartition)"
    " WHEN b.roots THEN (b.oid, c.oid) IN (SELECT publication, relid FROM named)"
    " AND (b.oid, c.oid) NOT IN (SELECT publication, relid FROM below)"
    " ELSE (b.oid, c.oid) IN (SELECT publication, relid FROM named"
    " UNION SELECT publication, relid FROM below) END) a"
    " CROSS JOIN LATERAL generate_subscripts(a.relids, 1) AS i"
    " JOIN pg_catalog.pg_class c ON c.oid = a.relids[i]"
    " JOIN pg_catalog.pg_namespace n ON n.oid = c.relnamespace)";

const char pgb_published_lists[] =
    " LEFT JOIN pg_catalog.pg_publication_rel r ON r.prpubid = p.publication"
    " AND r.prrelid = p.relid";

const char pgb_published_names[] =
    "(SELECT array_agg(a.attname ORDER BY a.attnum) FROM pg_catalog.pg_attribute a"
    " WHERE a.attrelid = p.relid AND a.attnum > 0 AND NOT a.attisdropped AND CASE"
    " WHEN r.prattrs IS NOT NULL THEN a.attnum = ANY (r.prattrs::int2[])"
    " ELSE a.attgenerated = '' OR a.attgenerated = 's' AND p.generated END)";

const char pgb_published_filter[] = "pg_catalog.pg_get_expr(r.prqual, r.prrelid)";

std::string pgb_partition_tree(const std::string &oid)
{
    return "(WITH RECURSIVE m (relid, level) AS (SELECT " + oid +
           ", 0 UNION ALL SELECT i.inhrelid, m.level + 1 FROM m"
           " JOIN pg_catalog.pg_inherits i ON i.inhparent = m.relid"
           " JOIN pg_catalog.pg_class c ON c.oid = i.inhrelid AND c.relispartition)"
           " SELECT m.relid, m.level, c.relkind <> 'p' AS isleaf FROM m"
           " JOIN pg_catalog.pg_class c ON c.oid = m.relid)";
}
