// Splitting lines, and reporting what is wrong with one.
#include "fwutil/fwu_config_text.h"

#include "fwutil/fwu_error.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

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
        begin = line.find_first_not_of(" \t\r", begin);
        if (begin == line.npos || line[begin] == '#')
            return 0;
        if (line[begin] == '"') {
            const size_t end = line.find('"', begin + 1);
            if (end == line.npos)
                return fwu_config_wrong(at, "the closing quote is missing");
            if (end + 1 < line.size() && strchr(" \t\r", line[end + 1]) == nullptr)
                return fwu_config_wrong(at, "text follows directly behind the closing quote");
            out.emplace_back(line.substr(begin + 1, end - begin - 1));
            quoted = true;
            begin = end + 1;
            continue;
        }
        const size_t end = std::min(line.find_first_of(" \t\r", begin), line.size());
        const std::string_view word = line.substr(begin, end - begin);
        if (word.find('"') != word.npos)
            return fwu_config_wrong(at, "a quote stands inside the word %s",
                                    std::string(word).c_str());
        out.emplace_back(word);
        begin = end;
    }
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
