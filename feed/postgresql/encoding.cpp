// A connection of its own asks, since the others are at work.  Several characters are asked for at
// once, with line ends between them; where that fails, for the halves.
#include "feed/postgresql/encoding.h"

#include "feed/postgresql/beside.h"
#include "fwutil/fwu_clock.h"
#include "util/json_text.h"
#include "util/utf8.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <vector>

using character_map = std::unordered_map<std::string, std::string>;

struct pge_texts {
    character_map from_server; // all that were asked for
    character_map to_server;
    bool no_conversion = false; // the server has none for this encoding
    pgs_connection connection;  // null: none is open
};

constexpr size_t ASKED_AT_ONCE = 1000;
constexpr char UTF8[] = "UTF8";

bool pge_is_failure(const pgs_server &server, const PGresult *result)
{
    const char *const state =
        result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_SQLSTATE);
    return server.texts == nullptr && !server.any_bytes && server.encoding != UTF8 &&
           !server.encoding.empty() && state != nullptr &&
           (strcmp(state, "22P05") == 0 || strcmp(state, "22021") == 0);
}

std::string pge_text(const pgs_server &server, const PGresult *result)
{
    const char *const message =
        result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
    return "the server cannot convert a text of its encoding " + server.encoding + " to UTF-8" +
           (message == nullptr ? "" : " (" + pgs_one_line(message) + ")") +
           ": texts are taken as they are stored from now on, and what has no UTF-8 is marked";
}

void pge_begin(pgs_server &server)
{
    server.texts = std::make_shared<pge_texts>();
}

void pge_rest(const pgs_server &server)
{
    if (server.texts != nullptr)
        server.texts->connection.reset();
}

// Bytes of the character that a text begins with, in an encoding of servers.  They may be none.
static size_t length_of(const std::string &encoding, std::string_view text)
{
    constexpr char half_width = '\x8E'; // what follows is one byte, of EUC_TW three
    constexpr char third_set = '\x8F';  // what follows are two bytes
    if (!encoding.starts_with("EUC_"))
        return 1;
    const size_t length = text[0] == third_set                            ? 3
                          : text[0] == half_width && encoding == "EUC_TW" ? 4
                                                                          : 2;
    const auto follows = [](char byte) { return static_cast<unsigned char>(byte) > 0xA0; };
    const bool whole =
        text.size() >= length &&
        std::all_of(text.begin() + 1, text.begin() + static_cast<int>(length), follows);
    return whole ? length : 1;
}

// Bytes that stand for themselves in every encoding of a server.
static size_t ascii_length(std::string_view text)
{
    const auto end = std::find_if(text.begin(), text.end(), [](char byte) {
        return static_cast<unsigned char>(byte) >= 0x80;
    });
    return static_cast<size_t>(end - text.begin());
}

// A byte that is no character as a surrogate, and back.
static void put_escaped(std::string &out, std::string_view bytes)
{
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += '\xED';
        out += byte < 0xC0 ? '\xB2' : '\xB3';
        out += static_cast<char>(0x80 | (byte & 0x3F));
    }
}

static bool take_escaped(std::string &out, std::string_view text)
{
    if (text.size() < 3 || text[0] != '\xED' || (text[1] != '\xB2' && text[1] != '\xB3') ||
        !utf8_continues(text[2]))
        return false;
    const int high = text[1] == '\xB2' ? 0x80 : 0xC0;
    out += static_cast<char>(high | (static_cast<unsigned char>(text[2]) & 0x3F));
    return true;
}

// One direction.
struct direction {
    const pgs_server &server;
    character_map &known;
    std::string from;
    std::string to;
    bool escapes; // a character without a place: else "?"
};

static void put_without_place(const direction &way, const std::string &character)
{
    std::string out;
    if (way.escapes)
        put_escaped(out, character);
    else
        out = "?";
    way.known[character] = out;
}

static std::string query_for(const direction &way, std::string_view characters)
{
    std::string hex;
    json_text_hex(hex, characters);
    return "SELECT pg_catalog.encode(pg_catalog.convert(pg_catalog.decode('" + hex + "', 'hex'), " +
           pgs_literal(way.from) + ", " + pgs_literal(way.to) + "), 'hex')";
}

static bool from_hex(std::string &out, std::string_view hex)
{
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        unsigned char byte = 0;
        const auto [end, code] = std::from_chars(hex.data() + i, hex.data() + i + 2, byte, 16);
        if (code != std::errc() || end != hex.data() + i + 2)
            return false;
        out += static_cast<char>(byte);
    }
    return hex.size() % 2 == 0;
}

// Notes what these became, which lines hold; false when that is not as many.
static bool take_lines(const direction &way, const std::string *characters, size_t count,
                       std::string_view lines)
{
    for (size_t i = 0; i < count; i++) {
        const size_t end = lines.find('\n');
        if ((end == lines.npos) != (i + 1 == count))
            return false;
        way.known[characters[i]] = lines.substr(0, end);
        lines.remove_prefix(end == lines.npos ? 0 : end + 1);
    }
    return true;
}

// A connection that tells which host it is.
static const PGconn *any_of(const pgs_server &server)
{
    return server.replication != nullptr ? server.replication.get() : server.sql.get();
}

static outcome ask(const direction &way, const std::string *characters, size_t count)
{
    pge_texts &texts = *way.server.texts;
    std::string lines;
    for (size_t i = 0; i < count; i++)
        lines += (i == 0 ? "" : "\n") + characters[i];
    pgs_result answer;
    const int64_t deadline = fwu_monotonic_ms() + PGS_BESIDE_MS;
    if (texts.connection == nullptr)
        texts.connection = pgs_beside_connect(way.server, any_of(way.server), deadline);
    if (texts.connection == nullptr ||
        !pgs_beside_run(texts.connection.get(), query_for(way, lines), deadline, answer)) {
        texts.connection.reset();
        return {OUTCOME_LOST, "the server does not tell how to convert texts of its encoding " +
                                  way.server.encoding};
    }
    if (PQresultStatus(answer.get()) == PGRES_TUPLES_OK) {
        std::string converted;
        if (from_hex(converted, pgs_value(answer, 0, 0)) &&
            take_lines(way, characters, count, converted))
            return {};
    }
    const char *const state = PQresultErrorField(answer.get(), PG_DIAG_SQLSTATE);
    texts.no_conversion = state != nullptr && strcmp(state, "42883") == 0;
    if (count == 1 || texts.no_conversion) {
        for (size_t i = 0; i < count; i++)
            put_without_place(way, characters[i]);
        return {};
    }
    const size_t half = count / 2;
    outcome done = ask(way, characters, half);
    return done ? ask(way, characters + half, count - half) : std::move(done);
}

// The character that a text, which does not begin with ASCII, begins with; 0 bytes: none.
static size_t character_length(const direction &way, std::string_view text)
{
    uint32_t code = 0;
    return way.escapes ? length_of(way.from, text) : utf8_decode(text, code);
}

// Asks for the characters of a text that are not known yet.
static outcome learn(const direction &way, std::string_view text)
{
    std::vector<std::string> unknown;
    for (text.remove_prefix(ascii_length(text)); !text.empty();
         text.remove_prefix(ascii_length(text))) {
        const size_t length = character_length(way, text);
        std::string character(text.substr(0, length));
        if (length != 0 && !way.known.contains(character)) {
            way.known.emplace(character, "");
            unknown.push_back(std::move(character));
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    outcome done;
    size_t at = 0;
    for (; done && at < unknown.size(); at += ASKED_AT_ONCE)
        done = ask(way, &unknown[at], std::min(ASKED_AT_ONCE, unknown.size() - at));
    if (!done)
        for (const std::string &character : unknown)
            way.known.erase(character);
    return done;
}

static outcome convert(std::string &out, const direction &way, std::string_view text)
{
    const size_t plain = ascii_length(text);
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty())
        return {};
    if (!way.server.texts->no_conversion)
        if (outcome learnt = learn(way, text); !learnt)
            return learnt;
    while (!text.empty()) {
        const size_t length = character_length(way, text);
        const auto found = way.known.find(std::string(text.substr(0, length)));
        size_t taken = length;
        if (length != 0 && found != way.known.end()) {
            out += found->second;
        } else if (way.escapes) {
            put_escaped(out, text.substr(0, length));
        } else {
            const bool given_back = take_escaped(out, text);
            taken = given_back ? 3 : std::max<size_t>(length, 1);
            if (!given_back)
                out += '?';
        }
        text.remove_prefix(taken);
        const size_t ascii = ascii_length(text);
        out += text.substr(0, ascii);
        text.remove_prefix(ascii);
    }
    return {};
}

outcome pge_from_server(std::string &out, const pgs_server &server, std::string_view bytes)
{
    return convert(out,
                   {.server = server,
                    .known = server.texts->from_server,
                    .from = server.encoding,
                    .to = UTF8,
                    .escapes = true},
                   bytes);
}

outcome pge_query(std::string &out, const pgs_server &server, std::string_view utf8)
{
    if (server.texts == nullptr) {
        out += utf8;
        return {};
    }
    return convert(out,
                   {.server = server,
                    .known = server.texts->to_server,
                    .from = UTF8,
                    .to = server.encoding,
                    .escapes = false},
                   utf8);
}

outcome pge_answer(const pgs_server &server, const pgs_result &result)
{
    std::string text;
    if (server.texts == nullptr)
        return {};
    for (int row = 0; row < PQntuples(result.get()); row++)
        for (int column = 0; column < PQnfields(result.get()); column++) {
            const std::string_view value = pgs_value(result, row, column);
            if (ascii_length(value) == value.size())
                continue;
            text.clear();
            if (outcome done = pge_from_server(text, server, value); !done)
                return done;
            if (PQsetvalue(result.get(), row, column, text.data(), static_cast<int>(text.size())) ==
                0)
                return {OUTCOME_LOST, "no memory for the server's answer"};
        }
    return {};
}
