// The JSON file that tells how far the bridge is.
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
    EXPECT_EQ(text, "{\"state\":\"streaming\",\"error\":null,\"error_time\":null,\"pid\":" +
                        std::to_string(getpid()) +
                        ",\"updated\":\"NOW\",\"slot\":\"kestro\",\"publication\":\"pub "
                        "\\\"x\\\"\",\"system_identifier\":\"7710567567421338994\","
                        "\"database\":\"shop\",\"timeline\":\"3\",\"snapshot\":\"done\",\"server_"
                        "lsn\":\"1/40\","
                        "\"received_lsn\":\"1/30\",\"logged_lsn\":\"1/30\",\"told_lsn\":\"1/"
                        "28\",\"lag_bytes\":16,"
                        "\"lag_seconds\":0.000,\"last_commit\":null,\"transactions\":3,"
                        "\"changes\":12,\"cut\":1,\"replaced\":2,\"left_out\":3,\"unknown\":4,"
                        "\"reconnects\":1}\n");
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
                  .find("{\"state\":\"streaming\",\"error\":null,\"error_time\":null,\"pid\":"),
              0U);
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
