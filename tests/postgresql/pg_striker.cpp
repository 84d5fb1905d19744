// Messages of both directions are taken apart as far as needed: a kind, a length, contents.  What
// fails, fails in the server, too, so that its transaction is what the client takes it for.
#include "tests/postgresql/pg_striker.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <regex>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

const char PG_STRUCK[] = "struck by a test";

const char *pg_harm_name(pg_harm harm)
{
    static constexpr const char *names[] = {
        "nothing",
        "fails",
        "is denied",
        "meets a shutdown",
        "is not sent before the connection ends",
        "is done when the connection ends",
        "gives no rows",
        "gives fewer columns",
        "gives nulls",
        "gives nonsense",
    };
    static_assert(std::size(names) == HARM_COUNT);
    return names[harm];
}

static const char *state_of(pg_harm harm)
{
    return harm == HARM_DENIED ? "42501" : harm == HARM_SHUTDOWN ? "57P01" : "XX000";
}

static uint32_t get32(const std::string &bytes, size_t at)
{
    uint32_t n = 0;
    for (size_t i = 0; i < 4; i++)
        n = n << 8 | static_cast<unsigned char>(bytes[at + i]);
    return n;
}

static uint32_t get16(const std::string &bytes, size_t at)
{
    return static_cast<uint32_t>(static_cast<unsigned char>(bytes[at]) << 8 |
                                 static_cast<unsigned char>(bytes[at + 1]));
}

static std::string put(uint32_t n, int bytes)
{
    std::string out;
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        out += static_cast<char>(n >> shift & 0xFF);
    return out;
}

static std::string message(char kind, const std::string &contents)
{
    return kind + put(static_cast<uint32_t>(contents.size()) + 4, 4) + contents;
}

// The next whole message; empty: there is none yet.
static std::string take(std::string &bytes, bool has_kind)
{
    const size_t before = has_kind ? 1 : 0;
    if (bytes.size() < before + 4 || bytes.size() < before + get32(bytes, before))
        return {};
    std::string one = bytes.substr(0, before + get32(bytes, before));
    bytes.erase(0, one.size());
    return one;
}

static bool send_all(int fd, const std::string &bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

static bool receive(int fd, std::string &bytes)
{
    char some[65536];
    const ssize_t n = recv(fd, some, sizeof some, 0);
    if (n > 0)
        bytes.append(some, static_cast<size_t>(n));
    return n > 0;
}

// On one line, without what differs from run to run: numbers, positions of the server's log, names
// of snapshots.
static std::string without_numbers(const std::string &text)
{
    static const std::regex number("[0-9A-F]+/[0-9A-F]+|\\b[0-9A-F]+(-[0-9A-F]+)+\\b|\\b[0-9]+\\b");
    std::string line = std::regex_replace(text, number, "#");
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return c < ' '; }, ' ');
    return line;
}

// A description of rows, or a row, with less in it.
static std::string changed(const std::string &given, pg_harm harm)
{
    const uint32_t columns = get16(given, 5);
    std::string out;
    size_t at = 7;
    for (uint32_t i = 0; i < columns; i++) {
        const size_t begin = at;
        if (given[0] == 'T')
            at = given.find('\0', at) + 1 + 18;
        else if (get32(given, at) == 0xFFFFFFFF)
            at += 4;
        else
            at += 4 + get32(given, at);
        if (given[0] == 'T' || harm == HARM_FEWER_COLUMNS)
            out += harm == HARM_FEWER_COLUMNS && i + 1 == columns ? ""
                                                                  : given.substr(begin, at - begin);
        else
            out += harm == HARM_NULLS ? put(0xFFFFFFFF, 4) : put(1, 4) + "?";
    }
    return message(given[0],
                   put(harm == HARM_FEWER_COLUMNS && columns > 0 ? columns - 1 : columns, 2) + out);
}

pg_striker::pg_striker(std::string socket_path) : path(std::move(socket_path))
{
    listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        listen(listener, 16) != 0 || pipe(wake) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        throw std::runtime_error("no port to strike from");
    port = ntohs(address.sin_port);
    thread = std::thread([this] { serve(); });
}

pg_striker::~pg_striker()
{
    close(wake[1]);
    thread.join();
    for (const pair &both : pairs) {
        close(both.client);
        close(both.server);
    }
    close(wake[0]);
    close(listener);
}

void pg_striker::begin(const pg_place &place, pg_harm what)
{
    const std::lock_guard lock(guard);
    all.clear();
    numbers.clear();
    chosen = place;
    harm = what;
    done = false;
}

bool pg_striker::happened() const
{
    const std::lock_guard lock(guard);
    return done;
}

std::vector<pg_place> pg_striker::places() const
{
    const std::lock_guard lock(guard);
    return all;
}

std::string pg_striker::conninfo(const std::string &database) const
{
    return "host=127.0.0.1 port=" + std::to_string(port) + " user=postgres dbname=" + database +
           " sslmode=disable gssencmode=disable";
}

// What is to be done to this one.
pg_harm pg_striker::note(pair &both, const std::string &text)
{
    const std::lock_guard lock(guard);
    const int number = ++numbers[text];
    all.push_back({text, number});
    both.place = all.size();
    if (done || text != chosen.text || number != chosen.number || harm == HARM_NONE)
        return HARM_NONE;
    done = true;
    return harm;
}

// The server's words, which it has not said.
bool pg_striker::refuse(const pair &both, bool ends) const
{
    const std::string level = ends ? "FATAL" : "ERROR";
    const std::string state = state_of(harm);
    std::string given = message('E', "S" + level + '\0' + "V" + level + '\0' + "C" + state + '\0' +
                                         "M" + PG_STRUCK + '\0' + '\0');
    return send_all(both.client, ends ? given : given + message('Z', "I")) && !ends;
}

bool pg_striker::fail_in_server(pair &both)
{
    both.now = PASS;
    both.asked.clear();
    return send_all(both.server, message('Q', std::string("DO $$BEGIN RAISE EXCEPTION USING "
                                                          "ERRCODE = '") +
                                                  state_of(harm) + "', MESSAGE = '" + PG_STRUCK +
                                                  "'; END$$" + '\0'));
}

bool pg_striker::take_request(pair &both, const std::string &given)
{
    if (both.now == DROP_REQUEST)
        return given[0] != 'S' || fail_in_server(both);
    std::string text;
    if (!both.begun && get32(given, 4) == 196608)
        text = given.find("replication") == given.npos ? "a connection"
                                                       : "a connection that replicates";
    else if (both.begun && given[0] == 'Q')
        text = without_numbers(given.substr(5, given.size() - 6));
    else if (both.begun && given[0] == 'P')
        text = without_numbers(given.c_str() + 6);
    else
        return send_all(both.server, given);
    const bool connects = !both.begun;
    both.begun = true;
    both.asked = text;
    const pg_harm what = note(both, text);
    switch (what) {
    case HARM_UNSENT:
        return false;
    case HARM_SHUTDOWN:
        return refuse(both, true);
    case HARM_FAILS:
    case HARM_DENIED:
        if (connects)
            return refuse(both, true);
        if (given[0] == 'Q')
            return fail_in_server(both);
        both.now = DROP_REQUEST;
        return true;
    case HARM_HALF:
        both.now = CUT;
        break;
    case HARM_NO_ROWS:
    case HARM_FEWER_COLUMNS:
    case HARM_NULLS:
    case HARM_NONSENSE:
        both.now = CHANGE;
        break;
    default:
        break;
    }
    return send_all(both.server, given);
}

bool pg_striker::take_answer(pair &both, std::string given)
{
    const char kind = given[0];
    if (both.now == MUTE)
        return true;
    if (both.now == DROP_ANSWER)
        return kind != 'Z' || fail_in_server(both);
    if (kind == 'D' && both.place != 0) {
        const std::lock_guard lock(guard);
        if (both.place <= all.size())
            all[both.place - 1].rows = true;
    }
    if (both.now == PASS && kind == 'd' && !both.asked.empty()) {
        // The stream's signs of life come when they like.
        const bool change = both.streams && given.size() > 30 && given[5] == 'w';
        const pg_harm what =
            both.streams && !change ? HARM_NONE
            : change ? note(both, std::string("message ") + given[30] + " of the stream")
                     : note(both, "a row of " + both.asked);
        both.place = 0;
        if (what == HARM_UNSENT)
            return false;
        if (what == HARM_SHUTDOWN)
            return refuse(both, true);
        if (what == HARM_HALF)
            both.now = CUT;
        if (what == HARM_FAILS || what == HARM_DENIED) {
            both.now = both.streams ? MUTE : DROP_ANSWER;
            return !both.streams || refuse(both, false);
        }
    }
    if (both.now == CUT && strchr("RDCdHWE", kind) != nullptr) {
        (void)send_all(both.client, given.substr(0, given.size() / 2)); // it ends anyway
        return false;
    }
    if (both.now == CHANGE && (kind == 'T' || kind == 'D')) {
        const std::unique_lock lock(guard);
        if (harm == HARM_NO_ROWS && kind == 'D')
            return true;
        if (harm != HARM_NO_ROWS)
            given = changed(given, harm);
    }
    both.streams = both.streams || kind == 'W';
    if (kind == 'Z') {
        both.now = PASS;
        both.asked.clear();
        both.place = 0;
        both.streams = false;
    }
    return send_all(both.client, given);
}

bool pg_striker::take_requests(pair &both)
{
    if (!receive(both.client, both.requests))
        return false;
    for (;;) {
        const std::string one = take(both.requests, both.begun);
        if (one.empty())
            return true;
        if (!take_request(both, one))
            return false;
    }
}

bool pg_striker::take_answers(pair &both)
{
    if (!receive(both.server, both.answers))
        return false;
    for (;;) {
        const std::string one = take(both.answers, true);
        if (one.empty())
            return true;
        if (!take_answer(both, one))
            return false;
    }
}

static int connect_to(const std::string &path)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

void pg_striker::serve()
{
    for (;;) {
        std::vector<pollfd> wanted = {{wake[0], POLLIN, 0}, {listener, POLLIN, 0}};
        for (const pair &both : pairs) {
            wanted.push_back({both.client, POLLIN, 0});
            wanted.push_back({both.server, POLLIN, 0});
        }
        if (poll(wanted.data(), wanted.size(), -1) < 0 || wanted[0].revents != 0)
            return;
        size_t i = 2;
        for (auto at = pairs.begin(); at != pairs.end(); i += 2) {
            if ((wanted[i].revents == 0 || take_requests(*at)) &&
                (wanted[i + 1].revents == 0 || take_answers(*at))) {
                ++at;
                continue;
            }
            close(at->client);
            close(at->server);
            at = pairs.erase(at);
        }
        if (wanted[1].revents == 0)
            continue;
        pair fresh;
        fresh.client = accept(listener, nullptr, nullptr);
        fresh.server = connect_to(path);
        if (fresh.client >= 0 && fresh.server >= 0) {
            pairs.push_back(fresh);
        } else {
            close(fresh.client);
            close(fresh.server);
        }
    }
}
