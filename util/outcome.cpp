// What is told goes out in one write, so that lines of several processes do not mix.
#include "util/outcome.h"

#include "util/shown.h"
#include "util/stop_signal.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

static const char *g_program = "?"; // until main has set it
static std::string g_failed;        // told last by outcome_failed

const std::string &outcome::text() const
{
    static const std::string nothing;
    return failure == nullptr ? nothing : failure->text;
}

outcome &&outcome::at(std::string_view place) &&
{
    if (failure != nullptr)
        failure->text.insert(0, place);
    return std::move(*this);
}

outcome outcome_bad(std::string text)
{
    return {OUTCOME_BAD, std::move(text)};
}

void tell_as(const char *program)
{
    g_program = program;
}

const char *told_as()
{
    return g_program;
}

__attribute__((format(printf, 1, 0))) static std::string print(const char *format, va_list args)
{
    const int saved_errno = errno;
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    (void)vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    const std::string line = std::string(g_program) + ": " + shown_text(text, true) + "\n";
    (void)fwrite(line.data(), 1, line.size(), stderr); // nobody is left to tell
    (void)fflush(stderr);
    errno = saved_errno;
    return text;
}

void tell(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    (void)print(format, args);
    va_end(args);
}

outcome outcome_failed(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    g_failed = print(format, args);
    va_end(args);
    return OUTCOME_FAILED;
}

const std::string &outcome_failed_last()
{
    return g_failed;
}

int outcome_exit_status(const outcome &done)
{
    switch (done.kind()) {
    case OUTCOME_OK:
        return EXIT_STATUS_OK;
    case OUTCOME_BAD:
    case OUTCOME_LOST:
        tell("%s", done.text().c_str());
        return EXIT_STATUS_FAILED;
    case OUTCOME_USAGE:
        return EXIT_STATUS_USAGE;
    case OUTCOME_STOPPED:
        return EXIT_STATUS_SIGNAL + stop_signal_get();
    case OUTCOME_FAILED:
        break;
    }
    return EXIT_STATUS_FAILED;
}
