// The run's global state and the bits of the run flags word.
#ifndef DRIVER_BASE_GLOBALS_H
#define DRIVER_BASE_GLOBALS_H

#include <cstdint>

struct capinfo;

// Bits of g_flags.  The option scan sets them; every user tests one bit.
constexpr uint32_t FLAG_PAUSE = 0x0001;    // -pause: wait for Enter before the exit
constexpr uint32_t FLAG_VERSION = 0x0002;  // -version: print versions, no capture
constexpr uint32_t FLAG_VERBOSE = 0x0004;  // -verbose: diagnostics and the final position
constexpr uint32_t FLAG_HELP = 0x0008;     // -help, -?: print the help, no capture
constexpr uint32_t FLAG_SYNCONLY = 0x0010; // -synconly: stop after the data present
constexpr uint32_t FLAG_BG = 0x0020;       // -bg: run in the background
constexpr uint32_t FLAG_SHOWSTAT = 0x0040; // -showstat: show the status file, no capture
constexpr uint32_t FLAG_CAPSTATS = 0x0080; // -capstats: statistics of each capture file
constexpr uint32_t FLAG_SHOWSKIP = 0x0100; // -showskip: statistics of records no file took
constexpr uint32_t FLAG_SESSDATA = 0x0200; // second -verbose: session data of every record
constexpr uint32_t FLAG_SHOWSETS = 0x0400; // -showsets: item layout of every record
constexpr uint32_t FLAG_DUMPRECS = 0x0800; // -dumprecs: hex dump of every captured record
constexpr uint32_t FLAG_VERSNUM = 0x1000;  // -versnum: print the version number, no capture
constexpr uint32_t FLAG_ROLLOVER = 0x2000; // -rollover: next message file at the size limit

// Log levels of logmsg.  -verbose replaces the mask by LOG_VERBOSE.
constexpr uint32_t LOG_NOTICE = 2;
constexpr uint32_t LOG_VERBOSE = 8;

constexpr int LOG_FNAME_SIZE = 256;

extern uint32_t g_flags;                // run flags
extern int32_t g_nlogrecs;              // log records processed without error
extern uint32_t g_loglevel;             // mask of the levels that logmsg writes
extern char g_logfname[LOG_FNAME_SIZE]; // log file name; empty: standard error
extern capinfo *g_ci;                   // the run's capture configuration
extern int32_t g_needsetinfo;           // 1: item layouts are fetched for every record

// Adds one to a 32-bit counter, which starts again at the other end after 2^31 - 1.
inline void count_one(int32_t &counter)
{
    counter = static_cast<int32_t>(static_cast<uint32_t>(counter) + 1);
}

// Sets all of the above to their start values, without a capture configuration.
void init_globals();

#endif
