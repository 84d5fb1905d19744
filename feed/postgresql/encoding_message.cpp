// Messages of the stream with their texts converted: numbers stay, lengths follow the texts.
#include "feed/postgresql/encoding.h"

// A message on its way from one text to the other.
struct passage {
    std::string &out;
    const pgs_server &server;
    std::string_view left;
    outcome done = {};
};

// False when there are not so many bytes.
static bool pass(passage &p, size_t count)
{
    if (p.left.size() < count)
        return false;
    p.out += p.left.substr(0, count);
    p.left.remove_prefix(count);
    return true;
}

static bool convert(passage &p, size_t count)
{
    if (p.left.size() < count)
        return false;
    p.done = pge_from_server(p.out, p.server, p.left.substr(0, count));
    p.left.remove_prefix(count);
    return static_cast<bool>(p.done);
}

// A text with its NUL.
static bool pass_name(passage &p)
{
    const size_t end = p.left.find('\0');
    return end != std::string_view::npos && convert(p, end) && pass(p, 1);
}

static size_t number_at(std::string_view bytes, size_t count)
{
    size_t value = 0;
    for (const char c : bytes.substr(0, count))
        value = value << 8 | static_cast<unsigned char>(c);
    return value;
}

static bool pass_relation(passage &p)
{
    constexpr size_t type_and_modifier = 8;
    if (!pass(p, 4) || !pass_name(p) || !pass_name(p) || !pass(p, 1) || p.left.size() < 2)
        return false;
    size_t columns = number_at(p.left, 2);
    bool good = pass(p, 2);
    for (; good && columns > 0; columns--)
        good = pass(p, 1) && pass_name(p) && pass(p, type_and_modifier);
    return good;
}

// Its length stands in front of a value, so that it is put there once it is known.
static bool pass_value(passage &p)
{
    constexpr size_t width = 4;
    if (p.left.size() < width)
        return false;
    const size_t length = number_at(p.left, width);
    const size_t at = p.out.size();
    if (!pass(p, width) || !convert(p, length))
        return false;
    const size_t now = p.out.size() - at - width;
    for (size_t i = 0; i < width; i++)
        p.out[at + i] = static_cast<char>(now >> 8 * (width - 1 - i) & 0xFF);
    return true;
}

// Its kind, and its values.
static bool pass_row(passage &p)
{
    if (!pass(p, 1) || p.left.size() < 2)
        return false;
    size_t values = number_at(p.left, 2);
    bool good = pass(p, 2);
    for (; good && values > 0 && !p.left.empty(); values--) {
        const bool sent = p.left[0] == 't';
        good = pass(p, 1) && (!sent || pass_value(p));
    }
    return good;
}

static bool pass_rows(passage &p)
{
    bool good = pass(p, 4);
    while (good && !p.left.empty())
        good = pass_row(p);
    return good;
}

outcome pge_message(std::string &out, const pgs_server &server, std::string_view bytes)
{
    passage p = {.out = out, .server = server, .left = bytes};
    const char kind = pass(p, 1) ? bytes[0] : '\0';
    // Where something does not get to its end, what is left goes on as it is, like all else.
    switch (kind) {
    case 'R':
        (void)pass_relation(p);
        break;
    case 'Y':
        (void)(pass(p, 4) && pass_name(p) && pass_name(p));
        break;
    case 'O':
        (void)(pass(p, 8) && pass_name(p));
        break;
    case 'M': // its content is the client's, of whatever bytes
        (void)(pass(p, 1 + 8) && pass_name(p));
        break;
    case 'I':
    case 'U':
    case 'D':
        (void)pass_rows(p);
        break;
    default:
        break;
    }
    if (p.done)
        out += p.left;
    return std::move(p.done);
}
