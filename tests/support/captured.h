// Standard output and error of a piece of a test, and the log lines in them
// without their time stamps.
#ifndef TESTS_SUPPORT_CAPTURED_H
#define TESTS_SUPPORT_CAPTURED_H

#include <algorithm>
#include <cctype>
#include <gtest/gtest.h>
#include <string>

struct captured {
    std::string out;
    std::string err;
};

template <typename F> captured capture(F body)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    body();
    captured result;
    result.out = testing::internal::GetCapturedStdout();
    result.err = testing::internal::GetCapturedStderr();
    return result;
}

// Length of the "MM-DD-YY hh:mm:ss pid " that a line begins with, or 0.
inline size_t stamp_length(const std::string &line)
{
    static const std::string form = "00-00-00 00:00:00 0";
    if (line.size() < form.size())
        return 0;
    for (size_t i = 0; i < form.size(); i++) {
        const bool digit = isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (form[i] == '0' ? !digit : line[i] != form[i])
            return 0;
    }
    const size_t end = line.find_first_not_of("0123456789", form.size());
    return end != std::string::npos && line[end] == ' ' ? end + 1 : 0;
}

// Puts "LOG " in the place of the stamps.
inline std::string without_stamps(const std::string &text)
{
    std::string result;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        const std::string line = text.substr(at, end - at);
        const size_t stamp = stamp_length(line);
        result += stamp == 0 ? line : "LOG " + line.substr(stamp);
        at = end;
    }
    return result;
}

#endif
