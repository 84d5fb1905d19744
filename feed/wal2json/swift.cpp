// Lines taken apart by simdjson's On-Demand interface, which finds the tokens of a whole line
// at once, with the widest instructions that the processor has.
//
// It does not look at what it passes over, and makes numbers of digits.  So nothing is passed
// over here: each token is looked at, and either told or found to be none, in which case the line
// is left to the other parser.  The library itself answers for UTF-8, quotes, escapes and
// control characters in strings, and for where brackets, commas and colons stand; the letters of
// true, false and null and the digits of numbers are compared here.
#include "feed/wal2json/swift.h"

#include "feed/wal2json/pieces.h"

#include <algorithm>
#include <cstring>
#include <simdjson.h>
#include <vector>

namespace ondemand = simdjson::ondemand;

// For a line and what the library looks at behind it; its own memory is some seven times as much.
static constexpr size_t FIRST_SIZE = 4096;
static constexpr size_t LAST_SIZE = size_t{1024} * 1024;
static constexpr int DEEPEST = 16; // brackets in brackets; each is a call

struct w2j_swift {
    ondemand::parser parser;
    std::vector<char> padded; // begins with the line
};

static size_t digits_at(std::string_view text, size_t at)
{
    size_t end = at;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9')
        end++;
    return end - at;
}

// Whether the other parser takes it, too, which makes a floating-point number of it: no type
// is so narrow that this one would be beyond its range.
static bool is_plain_number(std::string_view token)
{
    size_t at = token.starts_with('-') ? 1 : 0;
    const size_t whole = digits_at(token, at);
    if (whole == 0 || (whole > 1 && token[at] == '0'))
        return false;
    at += whole;
    if (at < token.size() && token[at] == '.') {
        const size_t fraction = digits_at(token, at + 1);
        if (fraction == 0)
            return false;
        at += 1 + fraction;
    }
    if (at < token.size() && (token[at] == 'e' || token[at] == 'E')) {
        at++;
        if (at < token.size() && (token[at] == '-' || token[at] == '+'))
            at++;
        const size_t exponent = digits_at(token, at);
        if (exponent == 0 || exponent > 2)
            return false;
        at += exponent;
    }
    return at == token.size() && at <= 200;
}

// What is told of a line, and to whom.
struct telling {
    w2j_pieces &pieces;
    bool escapes; // the line has a backslash: strings may hold something else than they show
};

static bool tell_value(telling &to, ondemand::value value, int depth);

static bool tell_key(telling &to, ondemand::field &field)
{
    if (!to.escapes) {
        const char *const name = field.key().raw();
        const char *end = name;
        while (*end != '"')
            end++;
        return to.pieces.key({name, static_cast<size_t>(end - name)});
    }
    std::string_view name;
    return !field.unescaped_key().get(name) && to.pieces.key(name);
}

static bool tell_object(telling &to, ondemand::object &object, int depth)
{
    if (depth == DEEPEST || !to.pieces.start_object())
        return false;
    for (auto found : object) {
        ondemand::field field;
        if (std::move(found).get(field) || !tell_key(to, field) ||
            !tell_value(to, field.value(), depth + 1))
            return false;
    }
    return to.pieces.end_object();
}

static bool tell_array(telling &to, ondemand::array &array, int depth)
{
    if (depth == DEEPEST || !to.pieces.start_array())
        return false;
    for (auto found : array)
        if (found.error() || !tell_value(to, found.value_unsafe(), depth + 1))
            return false;
    return to.pieces.end_array();
}

static bool tell_string(telling &to, ondemand::value value, std::string_view token)
{
    if (to.escapes) {
        std::string_view text;
        return !value.get_string().get(text) && to.pieces.string(text);
    }
    ondemand::raw_json_string taken; // else the library may take the string for a key
    return !value.get_raw_json_string().get(taken) &&
           to.pieces.string(token.substr(1, token.size() - 2));
}

static bool tell_value(telling &to, ondemand::value value, int depth)
{
    std::string_view token = value.raw_json_token();
    while (!token.empty() && (token.back() == ' ' || token.back() == '\t' || token.back() == '\r' ||
                              token.back() == '\n'))
        token.remove_suffix(1); // blanks behind it
    switch (token.empty() ? '\0' : token[0]) {
    case '"':
        return token.size() > 1 && tell_string(to, value, token);
    case '{': {
        ondemand::object object;
        return !value.get_object().get(object) && tell_object(to, object, depth);
    }
    case '[': {
        ondemand::array array;
        return !value.get_array().get(array) && tell_array(to, array, depth);
    }
    case 'n':
        return token == "null" && to.pieces.null();
    case 't':
    case 'f':
        return (token == "true" || token == "false") && to.pieces.boolean(token == "true");
    default:
        return is_plain_number(token) && to.pieces.number(token);
    }
}

// The memory is doubled, so that it is not made anew for each line that is a little longer.
static bool make_room(w2j_swift &swift, size_t length)
{
    size_t size = std::max(swift.padded.size(), FIRST_SIZE);
    while (size < length)
        size *= 2;
    if (size == swift.padded.size())
        return true;
    if (swift.parser.allocate(size))
        return false;
    swift.padded.resize(size);
    return true;
}

void w2j_swift_free::operator()(w2j_swift *swift) const
{
    delete swift;
}

bool w2j_swift_tell(w2j_swift_memory &swift, w2j_pieces &pieces, std::string_view text)
{
    const size_t length = text.size() + simdjson::SIMDJSON_PADDING;
    if (text.empty() || length > LAST_SIZE || memchr(text.data(), 0, text.size()) != nullptr)
        return false;
    if (!swift)
        swift.reset(new w2j_swift);
    if (!make_room(*swift, length))
        return false;
    memcpy(swift->padded.data(), text.data(), text.size());
    // Where a bracket is missing at its end, the library looks for what goes on behind the line.
    memset(swift->padded.data() + text.size(), 0, simdjson::SIMDJSON_PADDING);
    pieces.texts_stay = true; // in this copy of the line, or where the library unescaped them
    telling to = {pieces, memchr(text.data(), '\\', text.size()) != nullptr};
    ondemand::document document;
    ondemand::object object;
    if (swift->parser.iterate(swift->padded.data(), text.size(), swift->padded.size())
            .get(document) ||
        document.get_object().get(object) || !tell_object(to, object, 0))
        return false;
    // Nothing may stand behind the object.
    return document.current_location().error() == simdjson::OUT_OF_BOUNDS;
}
