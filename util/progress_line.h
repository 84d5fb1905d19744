// A line on a terminal that tells how far something is, written over itself.
#ifndef UTIL_PROGRESS_LINE_H
#define UTIL_PROGRESS_LINE_H

#include <cstdint>
#include <string>

struct progress_line {
    bool on_terminal = false; // else nothing is shown
    int64_t next_ms = 0;      // not shown anew before this time
    bool shown = false;
};

// The line of this process's standard error.
progress_line progress_line_open();

// Whether it is time to show it anew, about four times a second; then it will be shown.
bool progress_line_due(progress_line &line);

// Shows it, the program's name in front.
void progress_line_show(progress_line &line, const std::string &text);

// Takes it away, before anything else is printed.
void progress_line_erase(progress_line &line);

#endif
