// The tables of publications of every kind, compared with the server's own view of them; a table
// that somebody has locked is none that is waited for.
#include "feed/postgresql/published.h"
#include "tests/postgresql/piece_fixture.h"

class PublishedTest : public PieceTest {
  protected:
    void SetUp() override
    {
        PieceTest::SetUp();
        if (server == nullptr)
            return;
        sql("DROP PUBLICATION feed; CREATE SCHEMA one; CREATE SCHEMA \"The Other\";"
            "CREATE TABLE one.plain (a int PRIMARY KEY, b text, gone int, c int);"
            "ALTER TABLE one.plain DROP COLUMN gone;"
            "CREATE TABLE one.made (a int PRIMARY KEY, b int GENERATED ALWAYS AS (a + 1) STORED);"
            "CREATE UNLOGGED TABLE one.unlogged (a int PRIMARY KEY);"
            "CREATE TABLE one.parent (a int); CREATE TABLE one.child () INHERITS (one.parent);"
            "CREATE VIEW one.seen AS SELECT 1 AS a;"
            "CREATE TABLE \"The Other\".\"T t\" (a int PRIMARY KEY);"
            "CREATE TABLE one.root (a int, b int, PRIMARY KEY (a)) PARTITION BY RANGE (a);"
            "CREATE TABLE one.leaf PARTITION OF one.root FOR VALUES FROM (0) TO (9);"
            "CREATE TABLE \"The Other\".middle PARTITION OF one.root FOR VALUES FROM (9) TO (19)"
            " PARTITION BY RANGE (a);"
            "CREATE TABLE \"The Other\".deep PARTITION OF \"The Other\".middle DEFAULT;");
        sql("CREATE PUBLICATION leaves FOR ALL TABLES; CREATE PUBLICATION nothing;"
            "CREATE PUBLICATION named FOR TABLE one.plain, one.parent, one.leaf");
        if (version() >= 13)
            sql("CREATE PUBLICATION roots FOR ALL TABLES WITH (publish_via_partition_root);"
                "CREATE PUBLICATION middle_leaves FOR TABLE one.root;"
                "CREATE PUBLICATION middle_roots FOR TABLE \"The Other\".middle, one.made"
                " WITH (publish_via_partition_root)");
        if (version() >= 15)
            sql("CREATE PUBLICATION lists FOR TABLE one.plain (c, a) WHERE (a > 3 OR c = 1),"
                " one.made (a);"
                "CREATE PUBLICATION root_lists FOR TABLE one.root (a) WHERE (a > 2)"
                " WITH (publish_via_partition_root);"
                "CREATE PUBLICATION twice FOR TABLE one.root, one.leaf, \"The Other\".deep"
                " WITH (publish_via_partition_root);"
                "CREATE PUBLICATION schemas FOR TABLES IN SCHEMA one, \"The Other\";"
                "CREATE PUBLICATION schema_roots FOR TABLES IN SCHEMA \"The Other\", TABLE one.root"
                " WITH (publish_via_partition_root)");
        if (version() >= 18)
            sql("CREATE PUBLICATION generated FOR ALL TABLES"
                " WITH (publish_generated_columns = stored);"
                "CREATE PUBLICATION not_generated FOR TABLE one.made, one.plain (b)"
                " WITH (publish_generated_columns = none)");
    }

    std::string ours() const
    {
        const bool lists = version() >= 15;
        return std::string("SELECT p.pubname, p.schemaname, p.tablename, ") +
               (lists ? pgb_published_names : "NULL::name[]") + ", " +
               (lists ? pgb_published_filter : "NULL") + " FROM " + pgb_published + " p" +
               (lists ? pgb_published_lists : "");
    }
};

TEST_F(PublishedTest, TheyAreThoseOfTheServersView)
{
    // The view of 15 has generated columns, too, which are never sent.
    const std::string which = version() == 15 ? " WHERE tablename <> 'made'" : "";
    const std::string order = " ORDER BY 1, 2, 3";
    const std::string theirs = std::string("SELECT pubname, schemaname, tablename, ") +
                               (version() >= 15 ? "attnames, rowfilter" : "NULL::name[], NULL") +
                               " FROM pg_publication_tables";
    const piece_rows wanted = client->run(theirs + which + order);
    EXPECT_GE(wanted.size(), 10U);
    EXPECT_EQ(client->run(ours() + which + order), wanted);
}

TEST_F(PublishedTest, NobodyIsWaitedFor)
{
    pg_client lock = connect();
    lock.run("BEGIN; LOCK TABLE one.plain, one.root, one.made, \"The Other\".\"T t\"");
    client->run("SET lock_timeout = '50ms'");
    const std::string tables = std::string("SELECT p.pubname, p.relid, ") +
                               (version() >= 15 ? pgb_published_names : "NULL") + " FROM " +
                               pgb_published + " p" + (version() >= 15 ? pgb_published_lists : "");
    EXPECT_GE(client->run(tables).size(), 10U);
    const std::string trees =
        "SELECT c.relname, m.relid::regclass, m.level, m.isleaf FROM pg_class c"
        " CROSS JOIN LATERAL ";
    const std::string order = " m WHERE c.relnamespace = 'one'::regnamespace AND c.relkind = 'p'"
                              " ORDER BY 1, 2";
    const piece_rows parts = client->run(trees + pgb_partition_tree("c.oid") + order);
    lock.run("COMMIT");
    EXPECT_EQ(parts, client->run(trees + "pg_partition_tree(c.oid)" + order));
    EXPECT_EQ(parts.size(), 4U);
}
