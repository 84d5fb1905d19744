// libpq's own call waits without an end for a server that never stops to send, and for no signal.
// Its steps are made here instead.  What they leave out is to give up a host that does not answer:
// as long as the system connects, its socket is shut, by which libpq goes on to the next address;
// behind that the connection is begun anew without the host.
#include "feed/postgresql/dial.h"

#include "fwutil/fwu_clock.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sys/ioctl.h>
#include <sys/socket.h>

constexpr size_t ANSWER_MAX = 1 << 20; // bytes seen waiting: far more than a login has

static void drop_notice(void *, const PGresult *)
{
}

void pgs_drop_notices(PGconn *connection)
{
    PQsetNoticeReceiver(connection, drop_notice, nullptr);
}

static std::string text_of(const char *text)
{
    return text == nullptr ? "" : text;
}

// A setting as the connection has it, from wherever.
static std::string setting(PGconn *connection, const char *key)
{
    return text_of(pgs_find_option(pgs_options(PQconninfo(connection)), key));
}

// Whom a connection is being made to, as libpq says it.
static std::string peer(const PGconn *connection)
{
    const std::string host = text_of(PQhost(connection));
    const std::string address = text_of(PQhostaddr(connection));
    const std::string port = text_of(PQport(connection));
    if (address.empty())
        return "connection to server on socket \"" + host + "/.s.PGSQL." + port + "\" failed: ";
    return "connection to server at \"" + host + "\"" +
           (address == host ? "" : " (" + address + ")") + ", port " + port + " failed: ";
}

// connect_timeout, which libpq's own call looks at, its steps do not; negative: for ever.  False:
// it is no number, said in libpq's words.
static bool take_limit(PGconn *connection, int64_t &limit_ms, std::string &why)
{
    const pgs_options options(PQconninfo(connection));
    const char *const text = pgs_find_option(options, "connect_timeout");
    limit_ms = -1;
    if (text == nullptr)
        return true;
    char *end = nullptr;
    errno = 0;
    const int64_t seconds = strtoll(text, &end, 10);
    const bool number = end != text && errno == 0 && seconds == static_cast<int>(seconds);
    if (!number || end[strspn(end, " \t\n\v\f\r")] != '\0') {
        why += peer(connection) + "invalid integer value \"" + text +
               "\" for connection option \"connect_timeout\"\n";
        return false;
    }
    if (seconds > 0)
        limit_ms = std::max(seconds, PGS_CONNECT_MIN_S) * 1000;
    return true;
}

static std::vector<std::string> split(const std::string &list)
{
    std::vector<std::string> items(1);
    for (const char c : list)
        if (c == ',')
            items.emplace_back();
        else
            items.back() += c;
    return items;
}

static std::string join(const std::vector<std::string> &items)
{
    std::string list;
    for (size_t i = 0; i < items.size(); i++)
        list += (i == 0 ? "" : ",") + items[i];
    return list;
}

// The hosts that are left to be tried.
struct host_lists {
    std::vector<std::string> host;
    std::vector<std::string> address;
    std::vector<std::string> port;
};

// Leaves the host out that the connection is being made to.  False: there is no other.
static bool leave_out(host_lists &left, PGconn *connection)
{
    left = {split(setting(connection, "host")), split(setting(connection, "hostaddr")),
            split(setting(connection, "port"))};
    const size_t n = std::max(left.host.size(), left.address.size());
    left.host.resize(n);
    left.address.resize(n);
    left.port.resize(n, left.port[0]);
    const std::string host = text_of(PQhost(connection));
    const std::string port = text_of(PQport(connection));
    for (size_t i = 0; i < n && n > 1; i++) {
        const std::string &named = left.host[i].empty() ? left.address[i] : left.host[i];
        if (named != host || (left.port[i] != port && !left.port[i].empty()))
            continue;
        for (std::vector<std::string> *list : {&left.host, &left.address, &left.port})
            list->erase(list->begin() + static_cast<std::ptrdiff_t>(i));
        return true;
    }
    return false;
}

// Adds libpq's lines, but for hosts of which something is said already.
static void add_lines(std::string &why, const std::string &message)
{
    constexpr char failed[] = " failed: ";
    bool known = false;
    for (size_t at = 0; at < message.size();) {
        const size_t end = std::min(message.find('\n', at), message.size() - 1) + 1;
        const std::string line = message.substr(at, end - at);
        if (const size_t who = line.find(failed); who != line.npos)
            known = why.find(line.substr(0, who + strlen(failed))) != why.npos;
        if (!known) // lines behind a host's first one are about it, too
            why += line;
        at = end;
    }
}

enum attempt { ATTEMPT_ENDED, ATTEMPT_TIMED_OUT, ATTEMPT_STOPPED, ATTEMPT_FAILED };

struct dialling {
    PGconn *connection;
    int64_t limit_ms = -1; // for one host; negative: for ever
    int64_t begun_ms = fwu_monotonic_ms();
    std::string host = peer(connection);
    size_t received = 0;
};

// Waits until libpq can go on.  STOP_TIMEOUT: the host has had its time.  STOP_ERROR: errno.
static stop_wait wait_for(dialling &d, bool to_write)
{
    if (const std::string now = peer(d.connection); now != d.host) {
        d.host = now;
        d.begun_ms = fwu_monotonic_ms();
    }
    int left = -1;
    if (d.limit_ms >= 0)
        left = static_cast<int>(std::clamp<int64_t>(d.begun_ms + d.limit_ms - fwu_monotonic_ms(), 0,
                                                    std::numeric_limits<int>::max()));
    const stop_wait waited =
        left == 0 ? STOP_TIMEOUT : stop_signal_wait(PQsocket(d.connection), left, to_write);
    int waiting = 0;
    if (waited != STOP_ERROR && ioctl(PQsocket(d.connection), FIONREAD, &waiting) == 0)
        d.received += static_cast<size_t>(waiting);
    return waited;
}

// Why the connection is not made goes to why.  ATTEMPT_FAILED: errno.
static attempt finish(PGconn *connection, std::string &why)
{
    dialling d = {.connection = connection};
    if (!take_limit(connection, d.limit_ms, why))
        return ATTEMPT_ENDED;
    PostgresPollingStatusType status = PGRES_POLLING_WRITING;
    while (status == PGRES_POLLING_READING || status == PGRES_POLLING_WRITING) {
        const stop_wait waited = wait_for(d, status == PGRES_POLLING_WRITING);
        if (waited == STOP_ASKED)
            return ATTEMPT_STOPPED;
        if (waited == STOP_ERROR)
            return ATTEMPT_FAILED;
        if (d.received > ANSWER_MAX) {
            why += d.host + "the server never stops to send\n";
            return ATTEMPT_ENDED;
        }
        if (waited == STOP_TIMEOUT) {
            why += d.host + "timeout expired\n";
            if (PQstatus(connection) != CONNECTION_STARTED ||
                shutdown(PQsocket(connection), SHUT_RDWR) != 0)
                return ATTEMPT_TIMED_OUT;
        }
        status = PQconnectPoll(connection);
    }
    if (status != PGRES_POLLING_OK)
        add_lines(why, text_of(PQerrorMessage(connection)));
    return ATTEMPT_ENDED;
}

outcome pgs_dial(pgs_connection &connection, const pgs_parameters &parameters, std::string &why)
{
    host_lists left;
    std::string texts[3];
    std::vector<const char *> keys = parameters.keys;
    std::vector<const char *> values = parameters.values;
    for (;;) {
        connection.reset(PQconnectStartParams(keys.data(), values.data(), 1));
        if (PQstatus(connection.get()) == CONNECTION_BAD) {
            why += text_of(PQerrorMessage(connection.get()));
            return {};
        }
        pgs_drop_notices(connection.get());
        const attempt ended = finish(connection.get(), why);
        if (ended == ATTEMPT_STOPPED)
            return OUTCOME_STOPPED;
        if (ended == ATTEMPT_FAILED)
            return pgs_wait_failed();
        if (ended == ATTEMPT_ENDED)
            return {};
        if (!leave_out(left, connection.get())) {
            add_lines(why, text_of(PQerrorMessage(connection.get())));
            return {};
        }
        texts[0] = join(left.host);
        texts[1] = join(left.address);
        texts[2] = join(left.port);
        keys = parameters.keys;
        values = parameters.values;
        keys.insert(keys.end() - 1, {"host", "hostaddr", "port"});
        values.insert(values.end() - 1, {texts[0].c_str(), texts[1].c_str(), texts[2].c_str()});
    }
}
