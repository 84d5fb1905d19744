// The JSON file that tells how far the bridge is.
#include "feed/postgresql/state.h"
#include "tests/support/notified.h"
#include "tests/support/tempdir.h"
#include "util/process_word.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

static std::string text_of(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST(BridgeState, FileTellsPositionsAndLag)
{
    const tempdir dir;
    pgb_state state;
    state.path = dir.file("state.json");
    state.phase = "streaming";
    state.started_us = 1'773'044'281'000'000;
    state.slot = "kestro";
    state.publication = "pub \"x\"";
    state.kept.system = "7710567567421338994";
    state.kept.database = "shop";
    state.kept.snapshot = "done";
    state.server_lsn = 0x100000040;
    state.received_lsn = 0x100000030;
    state.logged_lsn = 0x100000030;
    state.kept.told_lsn = 0x100000028;
    state.kept.timeline = 3;
    state.transactions = 3;
    state.changes = 12;
    state.marked = {.cut = 1, .replaced = 2, .left_out = 3, .unknown = 4};
    state.reconnects = 1;
    ASSERT_TRUE(pgb_state_write(state));
    std::string text = text_of(state.path);
    const size_t time = text.find("\"updated\":\"") + 11;
    ASSERT_LT(time + 27, text.size());
    text.replace(time, 27, "NOW");
    EXPECT_EQ(text, "{\"state\":\"streaming\",\"error\":null,\"error_time\":null,"
                    "\"error_position\":null,\"pid\":" +
                        std::to_string(getpid()) + ",\"process\":\"" + process_word(getpid()) +
                        "\",\"version\":\"2.21\",\"started\":\"2026-03-09T08:18:01.000000Z\""
                        ",\"updated\":\"NOW\",\"slot\":\"kestro\",\"publication\":\"pub "
                        "\\\"x\\\"\",\"system_identifier\":\"7710567567421338994\","
                        "\"database\":\"shop\",\"timeline\":\"3\",\"snapshot\":\"done\",\"server_"
                        "lsn\":\"1/40\","
                        "\"received_lsn\":\"1/30\",\"logged_lsn\":\"1/30\",\"told_lsn\":\"1/"
                        "28\",\"lag_bytes\":16,"
                        "\"lag_seconds\":0.000,\"last_commit\":null,\"transactions\":3,"
                        "\"changes\":12,\"cut\":1,\"replaced\":2,\"left_out\":3,\"unknown\":4,"
                        "\"reconnects\":1,\"aside\":[],\"taking\":[],\"untold\":[],"
                        "\"retention\":null}\n");
}

TEST(BridgeState, AServiceManagerHearsOfTheStreamAndOfAnswers)
{
    const tempdir dir;
    const notified manager(dir.file("socket"));
    setenv("NOTIFY_SOCKET", dir.file("socket").c_str(), 1);
    pgb_state state;
    state.path = dir.file("state.json");
    ASSERT_TRUE(pgb_state_tell(state));
    EXPECT_EQ(manager.next(), "STATUS=starting: logged 0/0");
    state.logged_lsn = 0x28;
    pgb_state_enter(state, "waiting", "no\nserver");
    state.alive = true;
    ASSERT_TRUE(pgb_state_tell(state));
    EXPECT_EQ(manager.next(), "STATUS=waiting: logged 0/28; no server\nWATCHDOG=1");
    EXPECT_NE(text_of(state.path).find("\"error_position\":\"0/28\""), std::string::npos);
    pgb_state_enter(state, "streaming");
    ASSERT_TRUE(pgb_state_tell(state));
    EXPECT_EQ(manager.next(), "STATUS=streaming: logged 0/28\nREADY=1");
    ASSERT_TRUE(pgb_state_tell(state));
    EXPECT_EQ(manager.next(), "STATUS=streaming: logged 0/28") << "nobody has answered";
    unsetenv("NOTIFY_SOCKET");
    state.alive = true;
    ASSERT_TRUE(pgb_state_tell(state));
    EXPECT_EQ(manager.next(), "");
}

// A configuration that describes nothing, and three tables of which one is just followed.
class BridgeStateOfTables : public testing::Test {
  protected:
    BridgeStateOfTables()
    {
        tell_as("prog");
        relations.tables.config = &config;
        relations.names.tables["sales.orders"] = {.dbname = "SALES", .dsetname = "ORDERS"};
        state.path = dir.file("state.json");
        state.relations = &relations;
    }

    void set_aside(const std::string &table)
    {
        pga_put(relations.aside, "sales", table,
                {.standing = PGA_ASIDE,
                 .at = 0x18,
                 .since = 0x18,
                 .since_us = 1'773'044'281'000'000,
                 .reason = "no\nroom"});
    }

    std::string members()
    {
        EXPECT_TRUE(pgb_state_write(state));
        const std::string text = text_of(state.path);
        return text.substr(text.find("\"aside\":"));
    }

    tempdir dir;
    fwu_config config;
    pgb_relations relations;
    pgb_state state;
};

TEST_F(BridgeStateOfTables, ThoseSetAsideAndTakenInAreNamed)
{
    set_aside("orders");
    pga_find_table(relations.aside, "sales.orders")->missed = 7;
    pga_put(relations.aside, "sales", "lines",
            {.standing = PGA_TAKING, .at = 0x20, .why = "resume", .rows = 3});
    pga_put(relations.aside, "sales", "followed", {.at = 0x20});
    const std::map<std::string, std::string> untold = {{"one", "no \"right\""}, {"two", ""}};
    state.untold = &untold;
    EXPECT_EQ(members(), "\"aside\":[{\"table\":\"sales.orders\",\"dataset\":\"SALES.ORDERS\","
                         "\"position\":\"0/18\",\"time\":\"2026-03-09T08:18:01.000000Z\","
                         "\"reason\":\"no\\u000aroom\",\"missed\":7}],"
                         "\"taking\":[{\"table\":\"sales.lines\",\"why\":\"resume\",\"rows\":3,"
                         "\"estimate\":null}],"
                         "\"untold\":[{\"what\":\"one\",\"answer\":\"no \\\"right\\\"\"},"
                         "{\"what\":\"two\",\"answer\":\"\"}],\"retention\":null}\n");
    pga_find_table(relations.aside, "sales.lines")->estimate = 9;
    testing::internal::CaptureStderr();
    pgb_state_print(state);
    pgb_state_tell_aside(state);
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        "prog: starting: logged 0/0, server 0/0, 0 bytes and 0.0 seconds behind; 0 "
        "transactions, 0 changes\n"
        "prog: table sales.orders is set aside since 0/18, 7 changes passed over: no\\x0aroom\n"
        "prog: table sales.lines is being taken in (resume): 3 rows of about 9\n"
        "prog: warning: 1 table is set aside: sales.orders; " +
            state.path + " has the reasons, and fwlog postgresql --resume takes them back in\n");
}

TEST_F(BridgeStateOfTables, ManyAreNotAllTold)
{
    testing::internal::CaptureStderr();
    pgb_state_tell_aside(state);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    for (int i = 0; i < 30; i++)
        set_aside("t" + std::to_string(i));
    const std::string text = members();
    EXPECT_NE(text.find("\"sales.t29\",\"dataset\":null"), std::string::npos);
    testing::internal::CaptureStderr();
    pgb_state_print(state);
    pgb_state_tell_aside(state);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1 + 20 + 1 + 1);
    EXPECT_NE(told.find("prog: ... and 10 more tables, which " + state.path + " has\n"),
              std::string::npos);
    EXPECT_NE(told.find("30 tables are set aside: sales.t0, "), std::string::npos);
}

TEST(BridgeState, WhatIsWrongStandsThereUntilItIsOver)
{
    const tempdir dir;
    pgb_state state;
    state.path = dir.file("state.json");
    pgb_state_enter(state, "failed", "table \"a\":\nno");
    ASSERT_TRUE(pgb_state_write(state));
    const std::string text = text_of(state.path);
    EXPECT_EQ(text.find("{\"state\":\"failed\",\"error\":\"table \\\"a\\\":\\u000ano\","
                        "\"error_time\":\"20"),
              0U)
        << text;
    pgb_state_enter(state, "streaming");
    ASSERT_TRUE(pgb_state_write(state));
    EXPECT_EQ(text_of(state.path)
                  .find("{\"state\":\"streaming\",\"error\":null,\"error_time\":null,\"error_"
                        "position\":null,"),
              0U);
}

TEST(BridgeState, TheServersNameStandsThereBeforeTheLogBelongsToIt)
{
    const tempdir dir;
    pgb_state state;
    state.path = dir.file("state.json");
    state.system = "77";
    state.database = "other";
    ASSERT_TRUE(pgb_state_write(state));
    EXPECT_NE(text_of(state.path).find("\"system_identifier\":\"77\",\"database\":\"other\""),
              std::string::npos);
    state.kept.system = "88";
    state.kept.database = "shop";
    ASSERT_TRUE(pgb_state_write(state));
    EXPECT_NE(text_of(state.path).find("\"system_identifier\":\"88\",\"database\":\"shop\""),
              std::string::npos);
}

TEST(BridgeState, OnlyAStatusFileIsReplaced)
{
    const tempdir dir;
    const auto put = [&](const std::string &name, const char *text) {
        std::ofstream(dir.file(name), std::ios::binary) << text;
    };
    for (const char *made : {"log", "log/deeper", "beside"})
        std::filesystem::create_directory(dir.file(made));
    std::filesystem::create_directory_symlink(dir.file("log"), dir.file("link"));
    std::filesystem::create_symlink(dir.file("log/source"), dir.file("to_source"));
    put("log/source", "{\"slot\":1}\n");
    put("log/postgresql.json", "{\"told_lsn\":\"0/1\"}\n");
    put("log/old.json", "{\"state\":\"stopped\"}\n");
    put("empty", "");
    put("status", "{\"state\":\"stopped\"}\n");
    put("short", "{\"stat");
    put("text", "my only copy\n");
    put("copied", "{\"state\":\"stopped\"}");
    put("copied.new", "my only copy\n");
    put("killed.new", "");
    const std::string log = "the log directory is no place for a status file but for its";
    const std::string other = "this is no status file, and would be replaced by one";
    const struct {
        const char *name;
        std::string refused; // empty: taken
    } rows[] = {
        {"fresh", ""},
        {"beside/fresh", ""},
        {"missing/fresh", ""},
        {"logs", ""},
        {"empty", ""},
        {"status", ""},
        {"log/postgresql.json", ""},
        {"link/postgresql.json", ""},
        {"beside/../log/postgresql.json", ""},
        {"killed", ""},
        {"short", other},
        {"copied", ".new: " + other},
        {"text", other},
        {"beside", other},
        {"log", log},
        {"log/source", log},
        {"log/names", log},
        {"log/old.json", log},
        {"log/deeper/fresh", log},
        {"log/deeper/postgresql.json", log},
        {"link/fw0001-00000001.log", log},
        {"beside/../log/fresh", log},
        {"to_source", log},
    };
    tell_as("fwlog");
    for (const auto &row : rows) {
        testing::internal::CaptureStderr();
        const bool taken = bool(pgb_state_check_path(dir.file(row.name), dir.file("log")));
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(taken, row.refused.empty()) << row.name << said;
        EXPECT_NE(said.find(row.refused), std::string::npos) << row.name << said;
    }
}

TEST(BridgeState, FileThatCannotBeWrittenIsReported)
{
    const tempdir dir;
    pgb_state state;
    state.path = dir.file("missing/state.json");
    tell_as("fwlog");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(pgb_state_write(state));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "fwlog: " + state.path + ": cannot write the state: No such file or directory\n");
}

TEST(BridgeState, LagIsNoneWhenTheLogHasEverything)
{
    pgb_state state;
    state.server_lsn = 100;
    state.logged_lsn = 100;
    state.commit_us = 1;
    EXPECT_EQ(pgb_lag_bytes(state), 0U);
    EXPECT_EQ(pgb_lag_seconds(state), 0);
    state.server_lsn = 200;
    EXPECT_EQ(pgb_lag_bytes(state), 100U);
    EXPECT_GT(pgb_lag_seconds(state), 1'000'000'000) << "since 1970";
}

// What others put there under the name of the file in the making is taken away, not written to.
TEST(BridgeState, NothingIsWrittenThroughWhatOthersPutThere)
{
    const tempdir dir;
    const std::string victim = dir.file("victim");
    write_file(victim, "precious\n");
    pgb_state state;
    state.path = dir.file("state.json");
    state.phase = "streaming";
    const std::function<void()> plant[] = {
        [&] { std::filesystem::create_symlink(victim, state.path + ".new"); },
        [&] { std::filesystem::create_symlink(victim + "-made", state.path + ".new"); },
        [&] { std::filesystem::create_hard_link(victim, state.path + ".new"); },
        [&] { EXPECT_EQ(mkfifo((state.path + ".new").c_str(), 0666), 0); },
        [&] {
            std::filesystem::remove(state.path);
            std::filesystem::create_symlink(victim, state.path);
        },
    };
    for (const auto &put : plant) {
        put();
        EXPECT_TRUE(pgb_state_write(state));
        EXPECT_EQ(read_file(victim), "precious\n");
        EXPECT_FALSE(std::filesystem::exists(victim + "-made"));
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(state.path)));
        EXPECT_TRUE(text_of(state.path).starts_with("{\"state\":\"streaming\""));
        EXPECT_FALSE(std::filesystem::exists(state.path + ".new"));
    }
    pgb_state_release(state);
}

TEST(BridgeState, TwoBridgesDoNotTakeTurnsInOneFile)
{
    const tempdir dir;
    pgb_state first;
    pgb_state second;
    first.path = second.path = dir.file("state.json");
    first.slot = "one";
    second.slot = "two";
    EXPECT_TRUE(pgb_state_take(first)) << "there is none yet";
    for (int i = 0; i < 2; i++) // the file of a start, the one that took its place
        EXPECT_TRUE(pgb_state_write(first));
    tell_as("fwlog");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(pgb_state_take(second));
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("state.json: it is the status file of another bridge that has not ended"),
              std::string::npos)
        << said;
    EXPECT_TRUE(pgb_state_write(second)) << "which does not say how it ended there";
    EXPECT_NE(text_of(first.path).find("\"slot\":\"one\""), std::string::npos);
    second.path = dir.file("other.json");
    EXPECT_TRUE(pgb_state_take(second)) << "as it was told to";
    EXPECT_TRUE(pgb_state_write(second));
    EXPECT_NE(text_of(second.path).find("\"slot\":\"two\""), std::string::npos);
    pgb_state_release(first);
    second.path = first.path;
    EXPECT_TRUE(pgb_state_take(second)) << "the first one has ended";
    EXPECT_TRUE(pgb_state_write(second));
    EXPECT_NE(text_of(first.path).find("\"slot\":\"two\""), std::string::npos);
    pgb_state_release(second);
}
