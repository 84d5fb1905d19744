// The cursor stays at the beginning of the line, so that a message of whoever does not know of it
// begins there and not behind it.
#include "util/progress_line.h"

#include "util/outcome.h"

#include <chrono>
#include <cstdio>
#include <unistd.h>

static constexpr int64_t INTERVAL_MS = 250;

progress_line progress_line_open()
{
    return {.on_terminal = isatty(STDERR_FILENO) == 1};
}

bool progress_line_due(progress_line &line)
{
    using namespace std::chrono;
    if (!line.on_terminal)
        return false;
    const int64_t now = duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
    if (now < line.next_ms)
        return false;
    line.next_ms = now + INTERVAL_MS;
    return true;
}

void progress_line_show(progress_line &line, const std::string &text)
{
    line.shown = true;
    fprintf(stderr, "%s: %s\033[K\r", told_as(), text.c_str());
    fflush(stderr);
}

void progress_line_erase(progress_line &line)
{
    if (!line.shown)
        return;
    fputs("\033[K", stderr);
    fflush(stderr);
    line.shown = false;
}
