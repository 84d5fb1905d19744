// "fwlog postgresql" at a live server, with each statement, connection, row of a COPY and message
// of the stream in turn failing, being denied, cut off before or behind it is done, or answered
// with less than is true; then the same command again.  Nothing is lost or comes twice, whatever
// failed was told, and no answer makes the bridge crash or wait for ever.
#include "tests/postgresql/intake_fixture.h"
#include "tests/postgresql/pg_striker.h"
#include "tests/support/blow_list.h"

#include <algorithm>
#include <iostream>

using strings = std::vector<std::string>;

struct statement_blow {
    pg_place place;
    pg_harm harm;
    std::string text() const
    {
        return place.text + " (" + std::to_string(place.number) + ") " + pg_harm_name(harm);
    }
};

class BridgeStatements : public IntakeTest {
  protected:
    strings words;             // of the run that is struck, and of the one behind it
    bool makes_slot = false;   // the run does, or it goes on in one
    bool lacks_rows = false;   // in the end the log has not all that the tables hold
    std::string expected;      // what the log has in the end
    std::string expected_text; // what the run prints in the end

    void SetUp() override
    {
        IntakeTest::SetUp();
        if (server == nullptr || IsSkipped())
            return;
        striker = std::make_unique<pg_striker>(server->socket());
        sql("CREATE TABLE load.plain (id integer PRIMARY KEY, note text);"
            "CREATE TABLE load.odd (id integer PRIMARY KEY, note text);"
            "CREATE TABLE load.named (name text COLLATE \"C\" PRIMARY KEY, body text);"
            "CREATE TABLE load.keyless (n integer, note text);"
            "ALTER TABLE load.plain REPLICA IDENTITY FULL;"
            "ALTER TABLE load.odd REPLICA IDENTITY FULL;"
            "ALTER TABLE load.named REPLICA IDENTITY FULL;"
            "ALTER TABLE load.keyless REPLICA IDENTITY FULL;"
            "INSERT INTO load.plain VALUES (1, 'first'), (2, NULL);"
            "INSERT INTO load.named SELECT 'n' || g, repeat('b', 1000) FROM "
            "generate_series(1, 4) g;"
            "INSERT INTO load.keyless VALUES (1, 'one'), (2, 'two')");
        configure("values mark\n");
    }
    void TearDown() override
    {
        IntakeTest::TearDown();
        striker.reset();
    }

    void make_log(const strings &more = {}) const
    {
        strings all = {"--create"};
        all.insert(all.end(), more.begin(), more.end());
        const run_result made = catch_up(all);
        ASSERT_EQ(made.status, 0) << made.err;
    }

    void keep() const
    {
        std::filesystem::create_directory(dir.file("log"));
        std::filesystem::copy(dir.file("log"), dir.file("kept"));
        if (!makes_slot)
            keep_slot();
    }
    void renew() const
    {
        std::filesystem::remove(dir.file("new.cfg"));
        std::filesystem::remove_all(dir.file("log"));
        std::filesystem::copy(dir.file("kept"), dir.file("log"));
        if (makes_slot) {
            drop_slot();
            sql("DROP PUBLICATION IF EXISTS " + database +
                "; DROP SCHEMA IF EXISTS kestro CASCADE");
        } else {
            bring_slot_back();
        }
    }

    run_result run(const pg_place &place, pg_harm harm) const
    {
        renew();
        striker->begin(place, harm);
        strings all = words;
        all.insert(all.end(), {"--conninfo", striker->conninfo(database)});
        return run_bridge(all);
    }

    static std::multiset<std::string> lines(const std::string &text)
    {
        std::istringstream in(text);
        std::multiset<std::string> all;
        for (std::string line; std::getline(in, line);)
            all.insert(line);
        return all;
    }
    bool holds(const std::string &what) const
    {
        return lines(history()) == lines(what);
    }
    void expect_sound(const statement_blow &blow, const run_result &result) const;
    void expect_goes_on(const statement_blow &blow, const run_result &result);
    void expect_not_twice() const;
    strings chosen(std::vector<statement_blow> blows);
    bool deal(const statement_blow &blow);
    static int failures()
    {
        return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
    }
    void strike(const std::string &name);
    void expect_asked_again(const std::string &statement, const std::vector<pg_harm> &harms,
                            const std::string &told);

    std::unique_ptr<pg_striker> striker;
};

// Whatever the server said.
void BridgeStatements::expect_sound(const statement_blow &blow, const run_result &result) const
{
    EXPECT_TRUE(result.status == 0 || result.status == 1) << result.status << result.err;
    const bool told = result.err.find("fwlog: ") != std::string::npos || !result.out.empty();
    EXPECT_TRUE(result.status == 0 || told) << "fails without a word";
    const bool says = blow.harm == HARM_FAILS || blow.harm == HARM_DENIED;
    EXPECT_TRUE(result.status == 0 || !says ||
                (result.err + result.out).find(PG_STRUCK) != std::string::npos)
        << result.err;
    EXPECT_EQ((result.err + result.out).find("FROM pg_catalog."), std::string::npos)
        << "shows a query that says nothing to people";
    if (words[0] != "--check") {
        EXPECT_EQ(fwlog({"verify"}).status, 0);
    }
}

// Each change of a transaction once at most.
void BridgeStatements::expect_not_twice() const
{
    const std::multiset<std::string> ours = lines(history());
    for (const std::string &line : lines(expected))
        if (!line.ends_with('}') && !line.ends_with(' ')) {
            EXPECT_LE(ours.count(line), lines(expected).count(line)) << line;
        }
}

// Behind what a server may do that tells no lies.
void BridgeStatements::expect_goes_on(const statement_blow &blow, const run_result &result)
{
    const bool aside = result.err.find("set aside") != std::string::npos;
    if (words[0] == "--check") {
        const run_result next = run_bridge(words);
        EXPECT_EQ(next.out, expected_text) << next.err;
        return;
    }
    const bool lies = blow.harm >= HARM_NO_ROWS;
    if (result.status == 0 && !lies && !aside && !lacks_rows && !holds(expected))
        expect_copy_equals_tables("load.keyless=n");
    run_result next = run_bridge(words);
    EXPECT_EQ(next.status, 0) << next.err;
    if (!holds(expected)) {
        expect_not_twice();
        // There may be no table, as far as the bridge can know.
        if (lacks_rows || blow.harm == HARM_NO_ROWS) {
            EXPECT_TRUE(lies) << history();
            return;
        }
        next = catch_up({"--resume", "all"});
        EXPECT_EQ(next.status, 0) << next.err;
        expect_copy_equals_tables("load.keyless=n");
    }
    EXPECT_EQ(fwlog({"verify"}).status, 0);
}

// Each place with each harm that it can take.
static std::vector<statement_blow> all_blows(const std::vector<pg_place> &places)
{
    std::vector<statement_blow> blows;
    for (const pg_place &place : places)
        for (int harm = HARM_FAILS; harm != (place.rows ? HARM_COUNT : HARM_NO_ROWS); harm++)
            blows.push_back({place, static_cast<pg_harm>(harm)});
    return blows;
}

// The blow whose text this is.
static statement_blow named_blow(const std::string &text)
{
    statement_blow blow = {{}, HARM_NONE};
    const size_t end = text.rfind(") ");
    const size_t at = text.rfind(" (", end);
    blow.place.text = text.substr(0, at);
    blow.place.number = std::stoi(text.substr(at + 2));
    for (int harm = HARM_FAILS; harm != HARM_COUNT; harm++)
        if (text.substr(end + 2) == pg_harm_name(static_cast<pg_harm>(harm)))
            blow.harm = static_cast<pg_harm>(harm);
    return blow;
}

// Those that are to be dealt, at random.
strings BridgeStatements::chosen(std::vector<statement_blow> blows)
{
    const char *const asked = getenv("KESTRO_STATEMENTS"); // how many, or all
    std::shuffle(blows.begin(), blows.end(), random);
    const std::string number = asked == nullptr ? "1" : asked;
    if (number != "all") { // one setting of a connection is much like another
        std::stable_partition(blows.begin(), blows.end(), [](const statement_blow &blow) {
            return !blow.place.text.starts_with("SET ");
        });
        blows.resize(std::min<size_t>(blows.size(), std::stoul(number)));
    }
    strings names;
    for (const statement_blow &blow : blows)
        names.push_back(blow.text());
    return names;
}

// False when the place was not reached.
bool BridgeStatements::deal(const statement_blow &blow)
{
    // What is asked beside the stream, and when, differs from run to run.
    run_result result;
    for (int i = 0; i < 3 && (i == 0 || !striker->happened()); i++)
        result = run(blow.place, blow.harm);
    if (getenv("KESTRO_STATEMENTS_TELL") != nullptr)
        std::cout << blow.text() << " -> "
                  << (striker->happened() ? std::to_string(result.status) + ": " + result.err
                                          : "not reached")
                  << std::endl;
    if (!striker->happened())
        return false;
    SCOPED_TRACE("status " + std::to_string(result.status) + ": " + result.err);
    expect_sound(blow, result);
    expect_goes_on(blow, result);
    return true;
}

void BridgeStatements::strike(const std::string &name)
{
    const char *const file = getenv("KESTRO_STATEMENTS_DONE");
    blow_list list(file == nullptr ? "" : file, name);
    if (list.complete()) {
        std::cout << list.summary() << " (done before)\n";
        return;
    }
    keep();
    const run_result undisturbed = run({}, HARM_NONE);
    ASSERT_TRUE(undisturbed.status == 0 || words[0] == "--check") << undisturbed.err;
    expected_text = undisturbed.out;
    if (words[0] != "--check")
        expected = history();
    const std::vector<pg_place> places = striker->places();
    const std::vector<statement_blow> all = all_blows(places);
    list.plan(std::to_string(places.size()) + " places", all.size(), chosen(all));
    const strings due = list.due();
    size_t missed = 0;
    for (const std::string &text : due) {
        SCOPED_TRACE(name + ", seed " + std::to_string(seed) + ", " + text);
        const int before = failures();
        const bool reached = deal(named_blow(text));
        missed += reached ? 0 : 1;
        if (failures() == before)
            list.note(text, reached);
    }
    EXPECT_LE(missed, 1 + due.size() / 5);
    std::cout << list.summary() << "\n";
}

TEST_F(BridgeStatements, Checks)
{
    words = {"--check", "--scan", "--write-config", "new.cfg"};
    makes_slot = true;
    strike("Checks");
}

TEST_F(BridgeStatements, ChecksALog)
{
    make_log();
    words = {"--check", "--json"};
    strike("ChecksALog");
}

TEST_F(BridgeStatements, MakesPublicationAndSlot)
{
    words = {"--create", "--once"};
    makes_slot = true;
    lacks_rows = true;
    strike("MakesPublicationAndSlot");
}

TEST_F(BridgeStatements, BeginsWithASnapshot)
{
    sql("UPDATE load.named SET body = repeat('b', 1500000)"); // in pieces
    words = {"--once", "--create", "--snapshot"};
    makes_slot = true;
    strike("BeginsWithASnapshot");
}

TEST_F(BridgeStatements, GoesOn)
{
    make_log({"--snapshot"});
    sql("INSERT INTO load.plain VALUES (3, 'third')");
    sql("BEGIN; UPDATE load.plain SET note = 'other' WHERE id = 1; INSERT INTO load.odd VALUES (1);"
        "COMMIT");
    sql("TRUNCATE load.odd; INSERT INTO load.odd VALUES (2, 'x')");
    sql("ALTER TABLE load.plain ADD more text; UPDATE load.plain SET more = 'm' WHERE id = 3");
    sql("CREATE TABLE load.later (id integer PRIMARY KEY); INSERT INTO load.later VALUES (1)");
    sql("DELETE FROM load.plain WHERE id = 2");
    words = {"--once"};
    strike("GoesOn");
}

TEST_F(BridgeStatements, SetsATableAside)
{
    configure("values mark\ntable load.odd values=error\ncolumn load.odd.note width=4\n");
    make_log({"--snapshot"});
    sql("INSERT INTO load.odd VALUES (1, 'too long')");
    sql("INSERT INTO load.plain VALUES (3, 'third'); INSERT INTO load.odd VALUES (2, 'z')");
    words = {"--once"};
    lacks_rows = true;
    strike("SetsATableAside");
}

TEST_F(BridgeStatements, TakesTablesBackIn)
{
    make_log();
    sql("INSERT INTO load.odd VALUES (1, 'x'); UPDATE load.named SET name = 'n5' WHERE name = 'n1';"
        "UPDATE load.keyless SET note = 'zwei' WHERE n = 2");
    words = {"--once",   "--resume",   "load.plain", "--resume",    "load.odd",
             "--resume", "load.named", "--resume",   "load.keyless"};
    strike("TakesTablesBackIn");
}

TEST_F(BridgeStatements, FollowsATableToItsNewName)
{
    make_log({"--snapshot"});
    sql("ALTER TABLE load.plain RENAME TO simple; INSERT INTO load.simple VALUES (3, 'third')");
    words = {"--once"};
    strike("FollowsATableToItsNewName");
}

TEST_F(BridgeStatements, AcceptsAGap)
{
    make_log({"--snapshot"});
    drop_slot();
    sql("INSERT INTO load.plain VALUES (3, 'third')");
    sql("SELECT pg_create_logical_replication_slot('" + database + "', 'pgoutput')");
    sql("INSERT INTO load.plain VALUES (4, 'fourth')");
    words = {"--once", "--accept-gap"};
    lacks_rows = true;
    strike("AcceptsAGap");
}

// A log that begins with a snapshot has all rows, whatever harm was done to the answers to the
// statements that begin so; told is in what the run says.
void BridgeStatements::expect_asked_again(const std::string &statement,
                                          const std::vector<pg_harm> &harms,
                                          const std::string &told)
{
    words = {"--once", "--create", "--snapshot"};
    makes_slot = true;
    keep();
    (void)run({}, HARM_NONE);
    expected = history();
    int found = 0;
    for (const pg_place &place : striker->places()) {
        if (!place.text.starts_with(statement))
            continue;
        found++;
        for (const pg_harm harm : harms) {
            const run_result result = run(place, harm);
            EXPECT_TRUE(striker->happened());
            EXPECT_EQ(result.status, 0) << result.err;
            EXPECT_THAT(result.err, testing::HasSubstr(told));
            EXPECT_EQ(lines(history()), lines(expected)) << result.err;
        }
    }
    EXPECT_GT(found, 0);
}

// What it says of columns belongs to none of the tables asked for: that is no table without
// columns, whose rows would have nothing in them.
TEST_F(BridgeStatements, ColumnsOfNoTableAreNotTaken)
{
    expect_asked_again("WITH t (place, oid, key, names) AS (VALUES",
                       {HARM_NO_ROWS, HARM_NULLS, HARM_NONSENSE}, "");
}

// Taken for an answer, it would be a database without tables.
TEST_F(BridgeStatements, AnAnswerAboutThePublishedTablesThatHoldsNothingIsAskedForAgain)
{
    expect_asked_again("WITH RECURSIVE t AS (SELECT p.relid",
                       {HARM_NO_ROWS, HARM_FEWER_COLUMNS, HARM_NULLS, HARM_NONSENSE},
                       "fwlog: the server's answer about the published tables holds no snapshot: ");
}

// The log would belong to a database without a name.
TEST_F(BridgeStatements, AServerThatTellsNoDatabaseIsRefused)
{
    words = {"--once", "--create", "--snapshot"};
    makes_slot = true;
    keep();
    const run_result result = run({.text = "IDENTIFY_SYSTEM", .number = 1}, HARM_FEWER_COLUMNS);
    EXPECT_TRUE(striker->happened());
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, testing::HasSubstr(", \"\"; is it a PostgreSQL server?\n"));
    const run_result next = run_bridge(words);
    EXPECT_EQ(next.status, 0) << next.err;
}

TEST_F(BridgeStatements, AFailureDoesNotShowAQueryOfThousandsOfCharacters)
{
    words = {"--check"};
    makes_slot = true;
    keep();
    (void)run({}, HARM_NONE);
    int found = 0;
    for (const pg_place &place : striker->places())
        if (place.text.starts_with("WITH RECURSIVE t AS (SELECT unnest")) {
            found++;
            EXPECT_EQ(run(place, HARM_FAILS).err,
                      "fwlog: asking the server's catalogue: struck by a test\n");
        }
    EXPECT_EQ(found, 1);
}
