// A program in a storm: started, killed, stopped, kept from writing, and started again.  Each run's
// output has a file of its own.
#ifndef TESTS_STORM_STORM_ACTOR_H
#define TESTS_STORM_STORM_ACTOR_H

#include "tests/postgresql/background.h"

#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

using storm_clock = std::chrono::steady_clock;

// How a run ended that was not asked to, or asked with a signal.
using storm_endings = std::map<int, int>;

struct storm_actor {
    std::string name;
    std::function<std::vector<std::string>(int run)> argv; // of the run with that number, from 1 on
    run_setup options;
    std::string outputs; // folder of the outputs

    background process;
    int runs = 0;
    int killed = 0;          // by a signal that it does not catch
    storm_endings endings{}; // by status, see run_result
    // What runs said last that ended with an error, N in place of each number, and how many did.
    std::map<std::string, int> told{};
    bool stopped = false; // by SIGSTOP, until the time below
    bool limited = false; // its files may not grow, until the time below
    storm_clock::time_point goes_on;
    storm_clock::time_point grows_on;
    storm_clock::time_point starts_again; // not before then

    std::string output(int run) const
    {
        return outputs + "/" + name + "." + std::to_string(run);
    }
};

// Starts it when it is not there and its time has come; notes how it ended.
void storm_tend(storm_actor &actor, std::mt19937 &random);

// Whether it is there; notes how it ended.
bool storm_runs(storm_actor &actor);

// Ends it and waits until it is gone; the status, 0 when it was not there.
int storm_end(storm_actor &actor, int signal);

void storm_stop(storm_actor &actor, std::chrono::milliseconds time);

// Lets its files grow to so many bytes only.
void storm_limit(storm_actor &actor, uint64_t bytes, std::chrono::milliseconds time);

// It runs, goes on and may write again.
void storm_calm(storm_actor &actor);

#endif
