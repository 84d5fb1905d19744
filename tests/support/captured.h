// Standard output and error of a piece of a test, and the log lines in them
// without their time stamps.
#ifndef TESTS_SUPPORT_CAPTURED_H
#define TESTS_SUPPORT_CAPTURED_H

#include <gtest/gtest.h>
#include <regex>
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

// Puts "LOG " in the place of "MM-DD-YY hh:mm:ss pid " at the beginning of lines.
inline std::string without_stamps(const std::string &text)
{
    static const std::regex stamp(
        "(^|\n)[0-9]{2}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]+ ");
    return std::regex_replace(text, stamp, "$1LOG ");
}

#endif
