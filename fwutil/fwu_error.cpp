// One report is one write to standard error, so that lines of several processes
// do not mix.
#include "fwutil/fwu_error.h"

#include "fwutil/fwu_look.h"
#include "fwutil/fwutil.h"
#include "util/shown.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>

static const char *program = "fwutil";
static int verbose = 0;
static std::string last; // printed by fwu_error
static fwu_error_hold *holding = nullptr;

fwu_error_hold::fwu_error_hold()
{
    holding = this;
}

fwu_error_hold::~fwu_error_hold()
{
    holding = nullptr;
}

void fwu_set_program(const char *name)
{
    program = name;
}

void fwu_set_verbose(int on)
{
    verbose = on;
}

__attribute__((format(printf, 1, 0))) static std::string report(const char *format, va_list args)
{
    const int saved_errno = errno;
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    (void)vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    if (holding != nullptr) {
        holding->text += (holding->text.empty() ? "" : "; ") + text;
        errno = saved_errno;
        return text;
    }
    const std::string line = std::string(program) + ": " + shown_text(text, false) + "\n";
    (void)fwrite(line.data(), 1, line.size(), stderr); // nobody is left to tell
    (void)fflush(stderr);
    errno = saved_errno;
    return text;
}

int fwu_error(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = report(format, args);
    va_end(args);
    if (holding != nullptr)
        return -1;
    last = std::move(text);
    const int saved_errno = errno;
    fwu_look(FWU_LOOK_ERROR, last.c_str());
    errno = saved_errno;
    return -1;
}

const std::string &fwu_error_last()
{
    return last;
}

void fwu_warn(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    (void)report(format, args);
    va_end(args);
}

void fwu_note(const char *format, ...)
{
    if (verbose == 0)
        return;
    va_list args;
    va_start(args, format);
    (void)report(format, args);
    va_end(args);
}
