// Points part a subject, "*" and ">" stand for any part, blanks end it.
#include "ship/subject.h"

#include <algorithm>

static bool is_plain(char c)
{
    return c > ' ' && c < 0x7f && c != '.' && c != '*' && c != '>' && c != '%';
}

static void put_part(std::string &out, std::string_view name)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    out += '.';
    if (name.empty())
        out += '%';
    for (const char c : name) {
        if (is_plain(c)) {
            out += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        out += {'%', digits[byte >> 4], digits[byte & 15]};
    }
}

void ship_subject_put(std::string &out, std::string_view dbname, std::string_view dsetname)
{
    put_part(out, dbname);
    put_part(out, dsetname);
}

bool ship_name_ok(std::string_view name)
{
    return !name.empty() && name.size() <= 255 && std::all_of(name.begin(), name.end(), [](char c) {
        return is_plain(c) && c != '/' && c != '\\';
    });
}
