// The JSON file that tells how far the bridge is, and names in SQL.
#include "feed/postgresql/server.h"
#include "feed/postgresql/state.h"
#include "tests/support/tempdir.h"

#include <fstream>
#include <gtest/gtest.h>
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
    state.slot = "kestro";
    state.publication = "pub \"x\"";
    state.system = "7710567567421338994";
    state.database = "shop";
    state.snapshot = "done";
    state.server_lsn = 0x100000040;
    state.received_lsn = 0x100000030;
    state.logged_lsn = 0x100000030;
    state.told_lsn = 0x100000028;
    state.timeline = 3;
    state.transactions = 3;
    state.changes = 12;
    state.reconnects = 1;
    ASSERT_TRUE(pgb_state_write(state, true));
    std::string text = text_of(state.path);
    const size_t time = text.find("\"updated\":\"") + 11;
    ASSERT_LT(time + 27, text.size());
    text.replace(time, 27, "NOW");
    EXPECT_EQ(text, "{\"state\":\"streaming\",\"pid\":" + std::to_string(getpid()) +
                        ",\"updated\":\"NOW\",\"slot\":\"kestro\",\"publication\":\"pub "
                        "\\\"x\\\"\",\"system_identifier\":\"7710567567421338994\","
                        "\"database\":\"shop\",\"timeline\":\"3\",\"snapshot\":\"done\",\"server_"
                        "lsn\":\"1/40\","
                        "\"received_lsn\":\"1/30\",\"logged_lsn\":\"1/30\",\"told_lsn\":\"1/"
                        "28\",\"lag_bytes\":16,"
                        "\"lag_seconds\":0.000,\"last_commit\":null,\"transactions\":3,"
                        "\"changes\":12,\"reconnects\":1}\n");
}

TEST(BridgeState, NextRunKnowsTheServerAndTheSnapshot)
{
    const tempdir dir;
    pgb_state state;
    state.path = dir.file("state.json");
    state.system = "77";
    state.database = "sh\"op\\\n\x7F\u00e9";
    state.slot = "a";
    state.snapshot = "begun";
    state.timeline = 12;
    state.told_lsn = 0x200000001;
    ASSERT_TRUE(pgb_state_write(state, false));
    pgb_state next;
    next.path = state.path;
    next.slot = "a";
    pgb_state_read(next);
    EXPECT_EQ(next.system, "77");
    EXPECT_EQ(next.database, state.database);
    EXPECT_EQ(next.timeline, 12U);
    EXPECT_EQ(next.snapshot, "begun");
    EXPECT_EQ(next.told_lsn, 0x200000001U);
    pgb_state other;
    other.path = state.path;
    other.slot = "b";
    pgb_state_read(other);
    EXPECT_EQ(other.system, "77");
    EXPECT_EQ(other.snapshot, "none") << "of another slot";
    EXPECT_EQ(other.told_lsn, 0U);
}

TEST(BridgeState, MissingOrTornFileLeavesNothingKnown)
{
    const tempdir dir;
    pgb_state state;
    state.path = dir.file("state.json");
    pgb_state_read(state);
    EXPECT_EQ(state.system, "");
    std::ofstream(state.path) << R"({"system_identifier":"77","database":"sho)";
    pgb_state_read(state);
    EXPECT_EQ(state.system, "");
    EXPECT_EQ(state.snapshot, "none");
}

TEST(BridgeState, FileThatCannotBeWrittenIsReported)
{
    const tempdir dir;
    pgb_state state;
    state.path = dir.file("missing/state.json");
    tell_as("fwlog");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(pgb_state_write(state, false));
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

TEST(BridgeServer, NumbersAreTakenWholeOrNotAtAll)
{
    uint32_t number = 7;
    for (const char *text : {"", "x", "1x", " 1", "-1", "+1", "4294967296", "1.0"}) {
        EXPECT_FALSE(pgs_number(number, text)) << text;
        EXPECT_EQ(number, 7U);
    }
    EXPECT_TRUE(pgs_number(number, "4294967295"));
    EXPECT_EQ(number, UINT32_MAX);
    int32_t with_sign = 0;
    EXPECT_TRUE(pgs_number(with_sign, "-1"));
    EXPECT_EQ(with_sign, -1);
    EXPECT_FALSE(pgs_number(with_sign, "2147483648"));
}

TEST(BridgeServer, NamesAndTextsAreQuoted)
{
    EXPECT_EQ(pgs_name("kestro"), "\"kestro\"");
    EXPECT_EQ(pgs_name("a\"b'c"), "\"a\"\"b'c\"");
    EXPECT_EQ(pgs_literal("a\"b'c"), "'a\"b''c'");
}
