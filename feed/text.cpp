// UTF-8 is decoded strictly although the JSON parser has looked at it before:
// array elements are cut out of strings here.
#include "feed/text.h"

#include <algorithm>

static constexpr uint32_t NOT_UTF8 = 0xFFFD;
static constexpr size_t QUOTE_MAX = 40;

// Bytes that follow the first byte of a character; -1 when it cannot be one.
static int following_bytes(unsigned char first)
{
    if (first < 0x80)
        return 0;
    if (first < 0xC2 || first > 0xF4)
        return -1;
    return first < 0xE0 ? 1 : first < 0xF0 ? 2 : 3;
}

// Takes one character off text; NOT_UTF8 and one byte less when it is none.
static uint32_t take_character(std::string_view &text)
{
    static const uint32_t smallest[] = {0, 0x80, 0x800, 0x10000};
    const auto first = static_cast<unsigned char>(text.front());
    const int more = following_bytes(first);
    uint32_t code = NOT_UTF8;
    size_t used = 1;
    if (more >= 0 && static_cast<size_t>(more) < text.size()) {
        used += static_cast<size_t>(more);
        code = more == 0 ? first : first & (0x3FU >> more);
        for (size_t i = 1; i < used; i++) {
            const auto byte = static_cast<unsigned char>(text[i]);
            code = (byte & 0xC0) == 0x80 ? code << 6 | (byte & 0x3FU) : UINT32_MAX >> 6;
        }
        if (code < smallest[more] || code > 0x10FFFF) {
            code = NOT_UTF8;
            used = 1;
        }
    }
    text.remove_prefix(used);
    return code;
}

bool feed_latin1(std::string &out, std::string_view utf8, uint32_t &bad)
{
    out.clear();
    while (!utf8.empty()) {
        const uint32_t code = take_character(utf8);
        if (code > 0xFF) {
            bad = code;
            return false;
        }
        out.push_back(static_cast<char>(code));
    }
    return true;
}

std::string feed_latin1_lossy(std::string_view utf8)
{
    std::string out;
    while (!utf8.empty()) {
        const uint32_t code = take_character(utf8);
        out.push_back(code > 0xFF ? '?' : static_cast<char>(code));
    }
    return out;
}

// Passes over "[0:3]=", which the server writes when an array does not begin at 1.
static const char *skip_bounds(std::string_view &literal)
{
    if (!literal.starts_with('['))
        return nullptr;
    const size_t equals = literal.find('=');
    if (equals == std::string_view::npos)
        return "is not an array literal";
    if (literal.substr(0, equals).find("][") != std::string_view::npos)
        return "is an array of more than one dimension";
    literal.remove_prefix(equals + 1);
    return nullptr;
}

// Takes an element that begins with a quote; the opening quote is gone.
static bool take_quoted(std::string &element, std::string_view &rest)
{
    while (!rest.empty()) {
        char c = rest.front();
        rest.remove_prefix(1);
        if (c == '"')
            return true;
        if (c == '\\') {
            if (rest.empty())
                return false;
            c = rest.front();
            rest.remove_prefix(1);
        }
        element.push_back(c);
    }
    return false;
}

static bool is_null_word(std::string_view word)
{
    if (word.size() != 4)
        return false;
    for (size_t i = 0; i < 4; i++) {
        if ((word[i] | 0x20) != "null"[i])
            return false;
    }
    return true;
}

static const char *take_element(std::string &element, std::string_view &rest)
{
    element.clear();
    if (rest.starts_with('"')) {
        rest.remove_prefix(1);
        return take_quoted(element, rest) ? nullptr
                                          : "is an array literal whose quotes do not match";
    }
    bool escaped = false;
    while (!rest.empty() && rest.front() != ',' && rest.front() != '}') {
        if (rest.front() == '{')
            return "is an array of more than one dimension";
        if (rest.front() == '"')
            return "is not an array literal";
        if (rest.front() == '\\') {
            escaped = true;
            rest.remove_prefix(1);
            if (rest.empty())
                break;
        }
        element.push_back(rest.front());
        rest.remove_prefix(1);
    }
    if (element.empty())
        return "is an array literal with an empty element";
    return !escaped && is_null_word(element) ? "has a NULL among its elements" : nullptr;
}

const char *feed_array(std::vector<std::string> &elements, std::string_view literal)
{
    size_t count = 0;
    if (const char *wrong = skip_bounds(literal))
        return wrong;
    if (literal.size() < 2 || literal.front() != '{' || literal.back() != '}')
        return "is not an array literal";
    literal.remove_prefix(1);
    if (literal == "}") {
        elements.clear();
        return nullptr;
    }
    for (;;) {
        if (count == elements.size())
            elements.emplace_back();
        if (const char *wrong = take_element(elements[count], literal))
            return wrong;
        count++;
        if (literal == "}")
            break;
        if (!literal.starts_with(','))
            return "is not an array literal";
        literal.remove_prefix(1);
    }
    elements.resize(count);
    return nullptr;
}

std::string feed_name(std::string_view name)
{
    std::string out(name);
    for (char &c : out) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
        else if (c == '_')
            c = '-';
    }
    return out;
}

std::string feed_quote(std::string_view value)
{
    std::string out = "\"";
    size_t end = std::min(value.size(), QUOTE_MAX);
    while (end > 0 && end < value.size() && (value[end] & 0xC0) == 0x80)
        end--; // not in the middle of a character
    for (const char c : value.substr(0, end))
        out.push_back(static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c);
    return out + (end < value.size() ? "...\"" : "\"");
}
