// What is told goes out in one write, so that lines of several processes do not mix.
#include "util/outcome.h"

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

// As a terminal shows it and does nothing else: names of tables and other texts of clients may hold
// what would move its cursor or look like another line.  Line ends that are ours have two blanks
// behind them, so that no other one begins a line.
static std::string shown(const std::string &text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        const auto c = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        const bool two = c == 0xC2 && next >= 0x80 && next < 0xA0; // U+0080 to U+009F in UTF-8
        const bool ours = c == '\n' && text.compare(i + 1, 2, "  ") == 0;
        if ((c >= 0x20 && c != 0x7F && !two) || ours || c == '\t') {
            out += text[i];
            continue;
        }
        char code[8];
        (void)snprintf(code, sizeof code, two ? "\\u%04x" : "\\x%02x", two ? next : c);
        out += code;
        i += two ? 1 : 0;
    }
    return out;
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
    const std::string line = std::string(g_program) + ": " + shown(text) + "\n";
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
