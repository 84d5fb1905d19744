// UTF-8 is decoded strictly whatever has looked at it before: a source may pass on what it
// was sent, and elements of arrays are cut out of strings here.
#include "feed/text.h"

#include "util/utf8.h"

#include <algorithm>
#include <cstring>

static constexpr uint32_t LATIN1_LAST = 0xFF;
static constexpr uint32_t UTF8_LAST = 0x10FFFF;
static constexpr size_t QUOTE_MAX = 40;
static constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD"; // U+FFFD

size_t feed_ascii_length(std::string_view text)
{
    size_t n = 0;
    // Eight bytes at a time: most texts are ASCII throughout.
    for (uint64_t word = 0; text.size() - n >= sizeof word; n += sizeof word) {
        memcpy(&word, text.data() + n, sizeof word);
        if ((word & 0x8080808080808080U) != 0)
            break;
    }
    while (n < text.size() && static_cast<unsigned char>(text[n]) < 0x80)
        n++;
    return n;
}

// What stands in the encoding for a character, or for a byte that is no part of one;
// latin1 is room for one of ISO 8859-1.
static std::string_view stand_in(std::string_view character, uint32_t code, fwu_encoding encoding,
                                 char &latin1)
{
    if (encoding == FWU_UTF8)
        return code == FEED_NOT_UTF8 ? REPLACEMENT : character;
    latin1 = code > LATIN1_LAST ? '?' : static_cast<char>(code);
    return {&latin1, 1};
}

feed_encoded feed_encode(std::string &out, std::string_view utf8, fwu_encoding encoding,
                         size_t room)
{
    feed_encoded done;
    char latin1 = 0;
    out.clear();
    for (;;) {
        std::string_view rest = utf8.substr(done.taken);
        const size_t ascii = feed_ascii_length(rest.substr(0, room - out.size()));
        out.append(rest, 0, ascii);
        done.taken += ascii;
        rest.remove_prefix(ascii);
        if (rest.empty() || out.size() == room)
            return done;
        uint32_t code = FEED_NOT_UTF8;
        const size_t length = std::max<size_t>(utf8_decode(rest, code), 1);
        const std::string_view made = stand_in(rest.substr(0, length), code, encoding, latin1);
        if (made.size() > room - out.size())
            return done;
        out.append(made);
        done.taken += length;
        if (done.bad == 0 && code > (encoding == FWU_UTF8 ? UTF8_LAST : LATIN1_LAST))
            done.bad = code;
    }
}

feed_measured feed_measure(std::string_view utf8, fwu_encoding encoding)
{
    constexpr size_t at_a_time = 4096;
    feed_measured all;
    std::string piece;
    while (!utf8.empty()) {
        const feed_encoded done = feed_encode(piece, utf8, encoding, at_a_time);
        all.length += piece.size();
        all.bad = all.bad == 0 ? done.bad : all.bad;
        utf8.remove_prefix(done.taken);
    }
    return all;
}

std::string feed_latin1(std::string_view utf8)
{
    std::string out;
    (void)feed_encode(out, utf8, FWU_LATIN1, FEED_ALL); // what has no place is of no interest
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

const char *feed_array(std::vector<std::string> &elements, size_t &count, std::string_view literal,
                       size_t most)
{
    std::string passed_over;
    count = 0;
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
        if (count < most && count == elements.size())
            elements.emplace_back();
        if (const char *wrong = take_element(count < most ? elements[count] : passed_over, literal))
            return wrong;
        count++;
        if (literal == "}")
            break;
        if (!literal.starts_with(','))
            return "is not an array literal";
        literal.remove_prefix(1);
    }
    elements.resize(std::min(count, most));
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
