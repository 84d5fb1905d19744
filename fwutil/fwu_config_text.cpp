// Splitting lines, and reporting what is wrong with one.
#include "fwutil/fwu_config_text.h"

#include "fwutil/fwu_error.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

constexpr std::string_view BLANKS = " \t\r";

int fwu_config_wrong(const fwu_config_at &at, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    char text[1024];
    (void)vsnprintf(text, sizeof text, format, args); // cut when overlong
    va_end(args);
    return fwu_error("%s:%d: %s", at.path.c_str(), at.line, text);
}

int fwu_config_split(const fwu_config_at &at, std::string_view line, fwu_words &out, bool &quoted)
{
    quoted = false;
    size_t begin = 0;
    for (;;) {
        begin = line.find_first_not_of(BLANKS, begin);
        if (begin == line.npos || line[begin] == '#')
            return 0;
        if (line[begin] == '"') {
            const size_t end = line.find('"', begin + 1);
            if (end == line.npos)
                return fwu_config_wrong(at, "the closing quote is missing");
            if (end + 1 < line.size() && BLANKS.find(line[end + 1]) == BLANKS.npos)
                return fwu_config_wrong(at, "text follows directly behind the closing quote");
            out.emplace_back(line.substr(begin + 1, end - begin - 1));
            quoted = true;
            begin = end + 1;
            continue;
        }
        const size_t end = std::min(line.find_first_of(BLANKS, begin), line.size());
        const std::string_view word = line.substr(begin, end - begin);
        if (word.find('"') != word.npos)
            return fwu_config_wrong(at, "a quote stands inside the word %s",
                                    std::string(word).c_str());
        out.emplace_back(word);
        begin = end;
    }
}

int fwu_config_split_names(const fwu_config_at &at, std::string_view line, fwu_words &out)
{
    size_t begin = 0;
    for (;;) {
        begin = line.find_first_not_of(BLANKS, begin);
        if (begin == line.npos || line[begin] == '#')
            return 0;
        bool quoted = false;
        size_t end = begin;
        for (; end < line.size() && (quoted || BLANKS.find(line[end]) == BLANKS.npos); end++)
            quoted = quoted != (line[end] == '"');
        if (quoted)
            return fwu_config_wrong(at, "the closing quote is missing");
        out.emplace_back(line.substr(begin, end - begin));
        begin = end;
    }
}

std::string_view fwu_config_first(std::string_view line)
{
    line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
    return line.substr(0, line.find_first_of(BLANKS));
}

int64_t fwu_config_number(std::string_view text, int64_t max)
{
    int64_t value = 0;
    if (text.empty())
        return -1;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return -1;
        value = value * 10 + (c - '0');
        if (value > max)
            return -1;
    }
    return value;
}
