// Tells the service manager that started the program how it is doing, by the datagrams
// that systemd takes, without its library.
#ifndef UTIL_NOTIFY_H
#define UTIL_NOTIFY_H

#include <cstdint>
#include <string>

// Whether NOTIFY_SOCKET names a socket: a path, or "@" and the name of an abstract one.
// Any other value counts as none.
bool notify_wanted();

// Sends assignments, a line each ("READY=1\nSTATUS=..."), and never waits.  False: they
// were not taken, or nobody wants them.
bool notify_send(const std::string &lines);

// The text as the value of a line: what would end it becomes a space.
std::string notify_value(const std::string &text);

// Microseconds after which the service manager takes a silent process for dead; 0: never.
int64_t notify_watchdog_us();

#endif
