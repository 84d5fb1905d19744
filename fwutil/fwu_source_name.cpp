// Quoting follows SQL: a quote inside quotes is written twice, and the form U&"..." writes a
// character as a backslash and four hexadecimal digits.
#include "fwutil/fwu_source_name.h"

#include <algorithm>
#include <cstdio>

static bool is_control(char c)
{
    return static_cast<unsigned char>(c) < ' ' || c == 127;
}

static bool needs_quotes(char c)
{
    return is_control(c) || c == '.' || c == '"' || c == ' ' || c == '#' || c == '=';
}

void fwu_source_name_put(std::string &out, std::string_view part)
{
    if (!part.empty() && std::none_of(part.begin(), part.end(), needs_quotes)) {
        out += part;
        return;
    }
    const bool controls = std::any_of(part.begin(), part.end(), is_control);
    out += controls ? "U&\"" : "\"";
    for (const char c : part) {
        if (is_control(c)) {
            char digits[8];
            (void)snprintf(digits, sizeof digits, "\\%04X", static_cast<unsigned>(c));
            out += digits;
            continue;
        }
        if (c == '"' || (controls && c == '\\'))
            out += c;
        out += c;
    }
    out += '"';
}

std::string fwu_source_name(std::string_view schema, std::string_view table)
{
    std::string name;
    fwu_source_name_put(name, schema);
    name += '.';
    fwu_source_name_put(name, table);
    return name;
}

std::string fwu_source_name(std::string_view schema, std::string_view table,
                            std::string_view column)
{
    std::string name = fwu_source_name(schema, table);
    name += '.';
    fwu_source_name_put(name, column);
    return name;
}

// The ASCII character that the four digits at the front stand for; -1: none.
static int take_digits(std::string_view &rest)
{
    constexpr size_t digits = 4;
    int value = 0;
    if (rest.size() < digits)
        return -1;
    for (const char c : rest.substr(0, digits)) {
        const size_t digit = std::string_view("0123456789ABCDEFabcdef").find(c);
        if (digit == std::string_view::npos)
            return -1;
        value = value * 16 + static_cast<int>(digit < 16 ? digit : digit - 6);
    }
    rest.remove_prefix(digits);
    return value > 0 && value < 128 ? value : -1;
}

// Takes a part whose opening quote is gone, and the closing one.
static bool take_quoted(std::string &part, std::string_view &rest, bool escapes)
{
    while (!rest.empty()) {
        const char c = rest.front();
        rest.remove_prefix(1);
        if (c == '"' && !rest.starts_with('"'))
            return true;
        if (c == '"' || (c == '\\' && escapes && rest.starts_with('\\'))) {
            rest.remove_prefix(1);
        } else if (c == '\\' && escapes) {
            const int character = take_digits(rest);
            if (character < 0)
                return false;
            part += static_cast<char>(character);
            continue;
        }
        part += c;
    }
    return false;
}

static bool take_part(std::string &part, std::string_view &rest)
{
    const bool escapes = rest.starts_with("U&\"") || rest.starts_with("u&\"");
    if (escapes || rest.starts_with('"')) {
        rest.remove_prefix(escapes ? 3 : 1);
        return take_quoted(part, rest, escapes);
    }
    part = rest.substr(0, std::min(rest.find_first_of(".\""), rest.size()));
    rest.remove_prefix(part.size());
    return !part.empty();
}

bool fwu_source_name_parts(std::vector<std::string> &parts, std::string_view name)
{
    parts.clear();
    for (;;) {
        if (!take_part(parts.emplace_back(), name))
            return false;
        if (name.empty())
            return true;
        if (name.front() != '.')
            return false;
        name.remove_prefix(1);
    }
}
