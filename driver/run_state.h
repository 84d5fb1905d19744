// How a run is doing, told to whoever watches it: in the file of KESTRO_STATUS, and to the
// service manager that started the program.  One
// record, which session.cpp and process.cpp bring up to date; run_state_text.cpp makes the
// file's text of it, run_state_file.cpp keeps the file.
#ifndef DRIVER_RUN_STATE_H
#define DRIVER_RUN_STATE_H

#include "capture/capfil.h"

#include <cstdint>
#include <string>
#include <vector>

struct run_position {
    int generation; // all zero: before the first record of the log
    int sequence;
    int tag;
};

struct run_file {
    std::string name; // the next file's after a rollover
    const char *format;
    cap_told told;
};

struct run_state {
    const char *state;  // starting, running, waiting, failed, stopped
    int64_t started_us; // times of day
    int64_t updated_us; // when the text was made last
    std::string boot;   // names the process beyond its pid, see run_state.cpp
    std::string config; // absolute paths of the reader's two files
    std::string status;
    std::string error; // the last one; empty: none
    int64_t error_us;  // when it came
    run_position error_at;
    int64_t errors;              // how many
    int64_t records;             // of the log that were processed without error
    run_position position;       // of the last of them
    std::vector<run_file> files; // in command-line order
};

extern bool g_run_state_on; // somebody is told

// What a session says last of an error that was told before: no news.
constexpr char PROCESS_FAILED[] = "Fwu_process() failed.";

// Takes KESTRO_STATUS for a session, and refuses a file that is, or would take the place
// of, another one of the run or of somebody else.  0 or the code of the message; nothing is
// written.
int run_state_begin(capinfo *ci, const char *pidfile, const char *cfgfile, const char *statfile);

// From here on this process is the one that captures; again where it is another one.
void run_state_start();

// Behind each record that was processed without error.
void run_state_count();
inline void run_state_record()
{
    if (g_run_state_on)
        run_state_count();
}

// What the forward-log library tells (FWU_LOOK_...).
void run_state_look(int what, const char *text);

// The capture files are about to be closed and released.
void run_state_closing();

// The run has ended.
void run_state_end(bool failed);

// The text of a state as JSON, or for Prometheus.
std::string run_state_json(const run_state &state);
std::string run_state_prometheus(const run_state &state);

// The same in a few words.
std::string run_state_line(const run_state &state);

// The file.  open: takes its path (empty: there is none to write), others are the names that the
// run has for its own files; 0 or the code of the message.  put: replaces it whole, and keeps
// other runs from it until release; a failure is told once.
int run_state_file_open(const std::string &path, const std::vector<std::string> &others);
void run_state_file_put(const run_state &state);
void run_state_file_release();

#endif
