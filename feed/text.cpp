// UTF-8 is decoded strictly whatever has looked at it before: a source may pass on what it
// was sent, and elements of arrays are cut out of strings here.
#include "feed/text.h"

#include "util/utf8.h"

#include <algorithm>

static constexpr uint32_t NOT_UTF8 = 0xFFFD;
static constexpr size_t QUOTE_MAX = 40;

// Takes one character off text; NOT_UTF8 and one byte less when it is none.
static uint32_t take_character(std::string_view &text)
{
    uint32_t code = NOT_UTF8;
    text.remove_prefix(std::max<size_t>(utf8_decode(text, code), 1));
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

// Passes over "[0:3]=", which is written when an array does not begin at 1.
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
    while (end > 0 && end < value.size() && utf8_continues(value[end]))
        end--; // not in the middle of a character
    for (const char c : value.substr(0, end))
        out.push_back(static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c);
    return out + (end < value.size() ? "...\"" : "\"");
}
