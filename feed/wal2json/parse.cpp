// Two parsers tell the pieces of a line.  The swift one (feed/wal2json/swift) takes the lines that
// are as they should be; all others, above all every one that is refused, the other one, which is
// there in every build: what is wrong with a line, and where, has one origin.
#include "feed/wal2json/parse.h"

#include "feed/wal2json/pieces.h"
#include "feed/wal2json/swift.h"

#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>

// The parser refuses numbers beyond the range of its floating-point type, although
// only their digits are used here: the widest type refuses least.
using wide_json =
    nlohmann::basic_json<std::map, std::vector, std::string, bool, int64_t, uint64_t, long double>;

// What the parser calls; each call returns false to stop.
struct handler {
    w2j_pieces &pieces;

    bool null()
    {
        return pieces.null();
    }
    bool boolean(bool value)
    {
        return pieces.boolean(value);
    }

    template <typename Integer> bool integer(Integer value)
    {
        char digits[32];
        const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        return pieces.number({digits, static_cast<size_t>(end - digits)});
    }
    // Called for numbers with a minus sign only, so that 0 was written "-0".
    bool number_integer(int64_t value)
    {
        return value == 0 ? pieces.number("-0") : integer(value);
    }
    bool number_unsigned(uint64_t value)
    {
        return integer(value);
    }
    bool number_float(long double, const std::string &digits)
    {
        return pieces.number(digits);
    }

    bool string(const std::string &text)
    {
        return pieces.string(text);
    }
    bool binary(wide_json::binary_t &)
    {
        return pieces.fail("holds bytes"); // no text has any
    }
    bool start_object(size_t)
    {
        return pieces.start_object();
    }
    bool key(const std::string &name)
    {
        return pieces.key(name);
    }
    bool end_object()
    {
        return pieces.end_object();
    }
    bool start_array(size_t)
    {
        return pieces.start_array();
    }
    bool end_array()
    {
        return pieces.end_array();
    }

    // The library's text runs "[id] parse error at line 1, column N: syntax error
    // while parsing ... - reason; last read: '...'"; the end may repeat the line.
    bool parse_error(size_t position, const std::string &, const wide_json::exception &what)
    {
        std::string reason = what.what();
        const size_t dash = reason.find(" - ");
        const size_t id = reason.find("] ");
        if (dash != std::string::npos)
            reason.erase(0, dash + 3);
        else if (id != std::string::npos)
            reason.erase(0, id + 2);
        const size_t last = reason.find("; last read: '");
        if (last != std::string::npos) {
            const size_t expected = reason.rfind("'; expected ");
            reason = reason.substr(0, last) +
                     (expected == std::string::npos ? "" : reason.substr(expected + 1));
        }
        return pieces.fail("is not valid JSON at byte " + std::to_string(position) + ": " + reason);
    }
};

outcome w2j_parse_plain(w2j_line &line, std::string_view text)
{
    // The parser takes a NUL byte for the end of its input.
    if (const void *nul = memchr(text.data(), 0, text.size()))
        return outcome_bad("is not valid JSON at byte " +
                           std::to_string(static_cast<const char *>(nul) - text.data() + 1) +
                           ": NUL byte");
    w2j_pieces pieces(line);
    handler calls{pieces};
    if (!wide_json::sax_parse(text.data(), text.data() + text.size(), &calls))
        return std::move(pieces.done);
    return pieces.check();
}

outcome w2j_parse(w2j_line &line, std::string_view text)
{
    w2j_pieces pieces(line);
    return w2j_swift_tell(line.swift, pieces, text) ? pieces.check() : w2j_parse_plain(line, text);
}
