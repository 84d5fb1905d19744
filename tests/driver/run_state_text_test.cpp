// What the status file of a run says, in both of its forms.
#include "driver/run_state.h"

#include "tests/support/golden.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

static run_state state_of_a_run()
{
    run_state state = {};
    state.state = "failed";
    state.started_us = 1'700'000'000'250'000;
    state.updated_us = 1'700'000'003'000'000;
    state.boot = "boot pid:[1] 77";
    state.config = "/etc/\"a\\b\".cfg";
    state.status = "/var/s\n1";
    state.error = "no \xFF room";
    state.error_us = 1'700'000'002'500'000;
    state.error_at = {1, 25, 341};
    state.errors = 2;
    state.records = 5'000'000'000;
    state.position = {1, 25, 340};
    state.files.push_back(
        {"cap", "text", {4'000'000'000, 400'000'000'000, 1, 0, 1'700'000'002'000'000, 1600000000}});
    state.files.push_back({"q.dat", "message", {}});
    return state;
}

static std::string expected(const char *name)
{
    std::string text = golden(name);
    return text.replace(text.find("PID"), 3, std::to_string(getpid()));
}

TEST(RunStateText, Json)
{
    EXPECT_EQ(run_state_json(state_of_a_run()), expected("run_state.json"));
}

TEST(RunStateText, Prometheus)
{
    EXPECT_EQ(run_state_prometheus(state_of_a_run()), expected("run_state.prom"));
}

TEST(RunStateText, WhatIsNotThereIsNull)
{
    run_state state = {};
    state.state = "starting";
    const auto json = nlohmann::json::parse(run_state_json(state));
    for (const char *name : {"error", "error_time", "error_position", "position", "started"})
        EXPECT_TRUE(json.at(name).is_null()) << name;
    EXPECT_EQ(json.at("files"), nlohmann::json::array());
    EXPECT_EQ(run_state_prometheus(state).find("last_error_info"), std::string::npos);
}
