// "fwlog postgresql" at a live server, with each of its system calls failing, doing half, and
// being the last one of its process, and then run again: each transaction that the server has
// committed is in the log, once and in order; the log is sound, and the slot free; what went
// wrong was told.
#include "tests/calls/program_calls.h"
#include "tests/postgresql/bridge_fixture.h"

class BridgeCalls : public BridgeTest {
  protected:
    program_world world;
    std::vector<std::string> words;   // of the run that is struck, and of the one behind it
    bool makes_slot = false;          // the run does, or it goes on in one
    std::string expected;             // what the log has in the end
    bool takes_anew = false;          // the run takes a table's rows, however often it is asked to
    std::optional<pg_client> session; // for what is asked at each blow

    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        options.directory = world.path();
        options.unset = {"NOTIFY_SOCKET"};
        sql("CREATE SCHEMA shop;"
            "CREATE TABLE shop.good (id integer PRIMARY KEY, note varchar(9));"
            "CREATE TABLE shop.odd (id integer PRIMARY KEY, note varchar(9));"
            "ALTER TABLE shop.good REPLICA IDENTITY FULL;"
            "ALTER TABLE shop.odd REPLICA IDENTITY FULL;"
            "INSERT INTO shop.good VALUES (1, 'first'), (2, 'second')");
        configure_world("");
    }
    void configure_world(const std::string &text) const
    {
        write_file(world.file("fwutil.cfg"), "log-directory log\n" + text);
    }
    void make_log(const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> all = {"--once", "--create"};
        all.insert(all.end(), more.begin(), more.end());
        const run_result made = run_program(bridge_argv(all), options);
        ASSERT_EQ(made.status, 0) << made.err;
    }

    void keep()
    {
        session.emplace(conninfo());
        world.keep();
        if (!makes_slot)
            keep_slot();
    }
    void renew()
    {
        world.renew();
        if (makes_slot) {
            drop_slot(*session);
            session->run("DROP PUBLICATION IF EXISTS " + database);
        } else {
            bring_slot_back(*session);
        }
    }

    // ---- runs

    traced_run run(const call_place &place, blow what)
    {
        renew();
        return run_traced({.directory = world.path(),
                           .body = [&]() -> int { world.become(bridge_argv(words), options); },
                           .place = place,
                           .what = what});
    }
    // The library of the server has its own words for a connection that is gone.
    bool told_as_lost(const blow &what) const
    {
        return what.os_errno == ECONNRESET &&
               world.err().find("server closed the connection") != std::string::npos;
    }
    void look(const struck_call &struck, const traced_run &traced)
    {
        if (traced.status == 0 || !told_as_lost(struck.what))
            expect_told(struck, traced, world);
        if (traced.status == 0) {
            EXPECT_EQ(history(), expected) << world.err();
        }
        const run_result next = run_bridge(words);
        EXPECT_EQ(next.status, 0) << next.err;
        const std::string rows = takes_anew ? expected.substr(expected.find("\nt ") + 1) : "";
        EXPECT_THAT(history(), testing::AnyOf(expected, expected + rows))
            << world.err() << next.err;
        EXPECT_EQ(fwlog({"verify"}).status, 0);
        EXPECT_TRUE(poll_until([&] {
            return session->value("SELECT count(*) FROM pg_replication_slots WHERE slot_name = '" +
                                  database + "' AND NOT active") == "1";
        })) << "the slot stays taken";
    }
    void strike(const std::string &name)
    {
        keep();
        if (can_trace()) {
            EXPECT_EQ(run({}, {}).status, 0) << world.out() << world.err();
            expected = history();
        }
        expect_survives_blows(
            {.name = "fwlog postgresql " + name,
             .run = [this](size_t, blow) { return run({}, {}); },
             .look = [this](const struck_call &s, const traced_run &r) { look(s, r); },
             .run_at = [this](const call_place &place, blow what) { return run(place, what); },
             .few = 3});
    }
};

// The first call of a kind, and with a name on that file, in the undisturbed run.
static call_place find_call(const traced_run &run, const char *name, const std::string &file)
{
    for (const traced_call &call : run.calls)
        if (call.is(name) && call.file == file)
            return {call.row, call.file, 1};
    ADD_FAILURE() << "no " << name << " " << file;
    return {};
}

TEST_F(BridgeCalls, WhatTheLogBelongsToIsNotForgottenWhereItCannotBeRead)
{
    if (!can_trace())
        GTEST_SKIP() << "processes cannot be traced here";
    make_log({"--status", "state.json"});
    words = {"--once", "--status", "state.json"};
    keep();
    const traced_run undisturbed = run({}, {});
    ASSERT_EQ(undisturbed.status, 0) << world.err();
    for (const auto &[name, file, told] :
         {std::tuple("openat", "log/source", "log/source: cannot read what the log belongs to: "),
          std::tuple("read", "log/source", "log/source: cannot read what the log belongs to: "),
          std::tuple("openat", "state.json", "state.json: cannot be read: "),
          std::tuple("ppoll", "", "waiting for the server: ")}) {
        EXPECT_EQ(run(find_call(undisturbed, name, file), {BLOW_FAIL, EIO}).status, 1);
        EXPECT_EQ(world.err(), std::string("fwlog: ") + told + "Input/output error\n");
        EXPECT_EQ(run_bridge(words).status, 0);
    }
}

// Its answer is lost with the connection to a server that has made the slot.
TEST_F(BridgeCalls, ASlotOfWhoseMakingNothingIsHeardIsTheNextRunsAsWell)
{
    if (!can_trace())
        GTEST_SKIP() << "processes cannot be traced here";
    makes_slot = true;
    words = {"--once", "--create", "--snapshot"};
    keep();
    const traced_run undisturbed = run({}, {});
    ASSERT_EQ(undisturbed.status, 0) << world.err();
    expected = history();
    // How much is received at once differs from run to run.
    const std::string told = "NOEXPORT_SNAPSHOT: could not receive data from server: Input/output";
    call_place place = find_call(undisturbed, "recvfrom", "socket");
    for (bool struck = false; !struck; place.nth++) {
        ASSERT_LT(place.nth, undisturbed.calls.size());
        EXPECT_EQ(run(place, {BLOW_FAIL, EIO}).status, 1);
        struck = world.err().find(told) != std::string::npos;
    }
    ASSERT_TRUE(poll_until([&] {
        return session->value("SELECT count(*) FROM pg_replication_slots WHERE slot_name = '" +
                              database + "' AND NOT active") == "1";
    })) << "no slot was made";
    const run_result next = run_bridge(words);
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_EQ(history(), expected);
}

TEST_F(BridgeCalls, GoesOn)
{
    make_log();
    sql("INSERT INTO shop.good VALUES (3, 'third')");
    sql("BEGIN; UPDATE shop.good SET note = 'other' WHERE id = 1; INSERT INTO shop.odd VALUES (1);"
        "COMMIT");
    sql("DELETE FROM shop.good WHERE id = 2");
    words = {"--once"};
    strike("GoesOn");
}

TEST_F(BridgeCalls, BeginsWithASnapshot)
{
    makes_slot = true;
    words = {"--once", "--create", "--snapshot"};
    strike("BeginsWithASnapshot");
}

TEST_F(BridgeCalls, SetsATableAside)
{
    configure_world("table shop.odd values=error\n");
    make_log();
    sql("INSERT INTO shop.odd VALUES (1, 'x')");
    sql("ALTER TABLE shop.odd REPLICA IDENTITY DEFAULT; UPDATE shop.odd SET note = 'y'");
    sql("INSERT INTO shop.good VALUES (3, 'third'); INSERT INTO shop.odd VALUES (2, 'z')");
    words = {"--once"};
    strike("SetsATableAside");
}

TEST_F(BridgeCalls, TakesATableBackIn)
{
    configure_world("table shop.odd values=error\n");
    make_log();
    sql("INSERT INTO shop.odd VALUES (1, 'x')");
    sql("ALTER TABLE shop.odd REPLICA IDENTITY DEFAULT; UPDATE shop.odd SET note = 'y'");
    ASSERT_EQ(catch_up().status, 0);
    sql("ALTER TABLE shop.odd REPLICA IDENTITY FULL; INSERT INTO shop.good VALUES (3, 'third')");
    words = {"--once", "--resume", "shop.odd"};
    takes_anew = true; // behind a truncate mark
    strike("TakesATableBackIn");
}

TEST_F(BridgeCalls, TellsItsStateElsewhere)
{
    make_log({"--status", "state.json"});
    sql("INSERT INTO shop.good VALUES (3, 'third')");
    words = {"--once", "--status", "state.json"};
    strike("TellsItsStateElsewhere");
}
