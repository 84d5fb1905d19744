// Values that their items cannot hold, or that do not come, where that is marked: null maps,
// whole values beside the records, what is told.
#include "tests/postgresql/bridge_fixture.h"

#include <regex>

using testing::HasSubstr;
using testing::Not;

class BridgeMarksTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        sql("CREATE SCHEMA shop");
        sql("CREATE TABLE shop.notes (id integer PRIMARY KEY, note text, price numeric(5,2),"
            " at timestamp)");
        sql("ALTER TABLE shop.notes REPLICA IDENTITY FULL");
    }

    std::string catch_up_well(const std::vector<std::string> &more = {}) const
    {
        const run_result result = catch_up(more);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.err;
    }

    std::string json() const
    {
        const run_result result = fwlog({"dump", "--json"});
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }
};

TEST_F(BridgeMarksTest, DatabaseThatNobodyDescribesNeverStopsForAValue)
{
    std::string notes;
    notes = catch_up_well({"--create"});
    EXPECT_THAT(notes, Not(HasSubstr("marked")));
    sql("INSERT INTO shop.notes VALUES (1, repeat('\u00e4', 600), 'NaN', '0044-03-15 12:00:00 BC'),"
        " (2, '10 \u20ac', 1.5, '2026-03-09 08:18:01')");
    notes = catch_up_well();
    for (const char *told :
         {"shop.notes.note: \"", "marked C: put the line \"column shop.notes.note width=N\"",
          "shop.notes.price: \"NaN\"", "left blank and marked !",
          "shop.notes.at: \"0044-03-15 12:00:00 BC\""})
        EXPECT_EQ(occurrences(notes, told), told == std::string("left blank and marked !") ? 2 : 1)
            << told << "\n"
            << notes;
    EXPECT_TRUE(logged("NULL-MAP=\".C!!\""));
    EXPECT_TRUE(logged("NOTE=\"10 \u20ac\" PRICE=1.50"));
    std::string whole;
    for (int i = 0; i < 600; i++)
        whole += "\u00e4";
    EXPECT_THAT(json(), HasSubstr("\"NOTE\":\"" + whole + "\""));
    EXPECT_THAT(json(), HasSubstr(R"("PRICE":"NaN","AT":"0044-03-15 12:00:00 BC")"));

    // Of an update both images have their whole values; what was told is not told again.
    sql("UPDATE shop.notes SET note = note || 'x' WHERE id = 1");
    sql("UPDATE shop.notes SET note = note || 'y' WHERE id = 1");
    notes = catch_up_well();
    EXPECT_EQ(occurrences(notes, "marked C"), 1);
    EXPECT_EQ(occurrences(json(), whole + "\""), 2);
    EXPECT_EQ(occurrences(json(), whole + "x\""), 2);
    EXPECT_EQ(occurrences(json(), whole + "xy\""), 1);
    EXPECT_EQ(captured().size(), 4U) << "readers of records pass over whole values";
    EXPECT_EQ(fwlog({"verify"}).status, 0);
}

TEST_F(BridgeMarksTest, ErrorSetsTheTableAsideWhereTheConfigurationWantsIt)
{
    catch_up_well({"--create"});
    configure("values error\ncolumn shop.notes.note width=9\n");
    sql("INSERT INTO shop.notes VALUES (1, 'longer than that', 1, NULL)");
    const run_result aside = catch_up();
    EXPECT_EQ(aside.status, 0);
    EXPECT_THAT(aside.err, HasSubstr("change width=9 to width=16 "
                                     "in the line of fwutil.cfg that begins with "
                                     "\"column shop.notes.note\", or cut texts with --truncate; "
                                     "or let such values be marked: add values=mark in the line"));
    // What is told does it, for this column alone.
    configure("values error\ncolumn shop.notes.note width=9 values=mark\n");
    const std::vector<std::string> resume = {"--resume", "shop.notes"};
    EXPECT_THAT(catch_up_well(resume), Not(HasSubstr("is set aside from")));
    EXPECT_TRUE(logged("ID=1 NOTE=\"longer th\" PRICE=1.00 AT=\"\" NULL-MAP=\".C.N\""));
    sql("INSERT INTO shop.notes VALUES (4, 'longer than that', 1, NULL)");
    catch_up_well();
    EXPECT_TRUE(logged("ID=4 NOTE=\"longer th\" PRICE=1.00 AT=\"\" NULL-MAP=\".C.N\""));
    sql("INSERT INTO shop.notes VALUES (2, 'short', 'NaN', NULL)");
    EXPECT_THAT(catch_up_well(), HasSubstr("table shop.notes is set aside"));
    // A text that is cut on demand is not marked.
    configure("values error\ncolumn shop.notes.note width=9\ncolumn shop.notes.price width=9\n");
    EXPECT_THAT(catch_up_well({"--truncate", "--resume", "shop.notes"}), Not(HasSubstr("marked")));
    EXPECT_TRUE(logged("ID=2 NOTE=\"short\" PRICE=\"NaN\" AT=\"\" NULL-MAP=\"...N\""));
    sql("INSERT INTO shop.notes VALUES (3, 'as long as that', 'NaN', NULL)");
    EXPECT_THAT(catch_up_well({"--truncate"}), Not(HasSubstr("marked")));
    EXPECT_TRUE(logged("NOTE=\"as long a\" PRICE=\"NaN\" AT=\"\" NULL-MAP=\"...N\""));
}

// The lines that are told, as they stand there; the values that they are about come whole then.
TEST_F(BridgeMarksTest, LinesThatGiveRoomAreTakenAsTheyAreTold)
{
    const auto told = [](const std::string &text, const char *pattern) {
        std::smatch found;
        EXPECT_TRUE(std::regex_search(text, found, std::regex(pattern))) << text;
        return found.str(found.size() - 1);
    };
    catch_up_well({"--create"});
    sql("INSERT INTO shop.notes VALUES (1, 'x', 'NaN', NULL)");
    const std::string put = catch_up_well();
    const std::string line = told(put, "put the line \"(column shop.notes.price width=[0-9]+)\" "
                                       "into the configuration, and \"values mark\" with it");
    configure(line + "\nvalues mark\n");
    sql("INSERT INTO shop.notes VALUES (2, 'x', 'NaN', NULL)");
    EXPECT_THAT(catch_up_well(), Not(HasSubstr("marked")));
    EXPECT_TRUE(logged("ID=2 NOTE=\"x\" PRICE=\"NaN\" AT=\"\" NULL-MAP=\"...N\""));

    // A greater width in the line that is there.
    configure(line + "\ncolumn shop.notes.note width=9\nvalues error\n");
    sql("INSERT INTO shop.notes VALUES (3, 'longer than that', 1, NULL)");
    const std::string change = catch_up_well();
    EXPECT_THAT(change, HasSubstr("table shop.notes is set aside"));
    const std::string wider =
        told(change, "change width=9 to (width=[0-9]+) in the line of "
                     "fwutil.cfg that begins with \"column shop.notes.note\"");
    configure(line + "\ncolumn shop.notes.note " + wider + "\nvalues error\n");
    catch_up_well({"--resume", "shop.notes"});
    EXPECT_TRUE(logged("ID=3 NOTE=\"longer than that\""));

    // Marks where the line says otherwise.
    configure("column shop.notes.note width=9 values=error\nvalues mark\n");
    sql("INSERT INTO shop.notes VALUES (4, 'longer than that', 1, NULL)");
    EXPECT_THAT(catch_up_well(), HasSubstr("change values=error to values=mark in the line of "
                                           "fwutil.cfg that begins with \"column "
                                           "shop.notes.note\""));
    configure("column shop.notes.note width=9 values=mark\nvalues mark\n");
    catch_up_well({"--resume", "shop.notes"});
    EXPECT_TRUE(logged("ID=4 NOTE=\"longer th\""));
    EXPECT_EQ(status_member("aside"), "[]");
}

TEST_F(BridgeMarksTest, Iso8859LogReplacesCharacters)
{
    configure("text-encoding iso-8859-1\n");
    catch_up_well({"--create"});
    sql("INSERT INTO shop.notes VALUES (1, '10 \u20ac, caf\u00e9', 1, NULL)");
    EXPECT_THAT(catch_up_well(), HasSubstr("has the character U+20AC, which has no place in ISO "
                                           "8859-1: replaced and marked R"));
    EXPECT_TRUE(logged("NOTE=\"10 ?, caf\u00e9\" PRICE=1.00 AT=\"\" NULL-MAP=\".R.N\""));
    EXPECT_THAT(json(), HasSubstr("\"NOTE\":\"10 \u20ac, caf\u00e9\""));
}

TEST_F(BridgeMarksTest, BytesThatAreNoUtf8AreKeptAsTheyAre)
{
    pg_client(server->conninfo())
        .run("CREATE DATABASE bytes_" + database +
             " ENCODING 'SQL_ASCII' TEMPLATE template0"
             " LC_COLLATE 'C' LC_CTYPE 'C'");
    const std::string other = database;
    database = "bytes_" + other;
    sql("CREATE TABLE public.raw (id integer PRIMARY KEY, body text);"
        "ALTER TABLE raw REPLICA IDENTITY FULL");
    catch_up_well({"--create"});
    sql("INSERT INTO raw VALUES (1, E'a\\xFFz')");
    EXPECT_THAT(catch_up_well(), HasSubstr("bytes that are not UTF-8: replaced and marked R"));
    EXPECT_TRUE(logged("BODY=\"a\uFFFDz\" NULL-MAP=\".R\""));
    EXPECT_THAT(json(), HasSubstr(R"("BODY":{"hex":"61ff7a"})"));
    pg_client client(server->conninfo());
    poll_until([&] {
        return client.value("SELECT count(*) FROM pg_replication_slots WHERE active") == "0";
    });
    client.run("SELECT pg_drop_replication_slot(slot_name) FROM pg_replication_slots");
    server->drop_database(database);
    database = other;
}
