// One thread passes bytes between each client and a connection of its own to the server.
#include "tests/postgresql/pg_proxy.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

pg_proxy::pg_proxy(std::string socket_path) : path(std::move(socket_path))
{
    listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        listen(listener, 16) != 0 || pipe(wake) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        throw std::runtime_error("no port for the proxy");
    port = ntohs(address.sin_port);
    thread = std::thread([this] { serve(); });
}

pg_proxy::~pg_proxy()
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

void pg_proxy::silence_at(const std::string &text, size_t bytes)
{
    const std::lock_guard lock(guard);
    trigger = text;
    silent = true;
    answers = false;
    bytes_left = bytes;
    done = false;
}

void pg_proxy::change_behind(const std::string &text, const std::string &from,
                             const std::string &to, int times)
{
    const std::lock_guard lock(guard);
    trigger = text;
    silent = false;
    answers = false;
    replaced = from;
    replacement = to;
    changes_left = times;
    done = false;
}

void pg_proxy::answer_with(const std::string &text, const std::string &bytes, behind what)
{
    const std::lock_guard lock(guard);
    trigger = text;
    silent = true;
    answers = true;
    bytes_left = 0;
    replacement = bytes;
    then = what;
    poured_bytes = 0;
    done = false;
}

size_t pg_proxy::poured() const
{
    const std::lock_guard lock(guard);
    return poured_bytes;
}

bool pg_proxy::happened() const
{
    const std::lock_guard lock(guard);
    return done;
}

std::string pg_proxy::conninfo(const std::string &database) const
{
    return "host=127.0.0.1 port=" + std::to_string(port) + " user=postgres dbname=" + database +
           " sslmode=disable gssencmode=disable";
}

constexpr size_t READY_SIZE = 6; // of the message that ends an answer

static bool send_all(int fd, const std::string &bytes)
{
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

static std::string receive(int fd)
{
    std::string bytes(65536, '\0');
    const ssize_t n = recv(fd, bytes.data(), bytes.size(), 0);
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return bytes;
}

bool pg_proxy::take_request(pair &both)
{
    const std::string bytes = receive(both.client);
    const std::lock_guard lock(guard);
    if (!trigger.empty() && bytes.find(trigger) != std::string::npos) {
        trigger.clear();
        both.chosen = true;
        both.bytes = bytes_left;
        done = silent;
        if (answers) {
            if (then == behind::the_same_for_ever)
                both.flood = replacement;
            return send_all(both.server, bytes) && send_all(both.client, replacement) &&
                   then != behind::end_of_connection;
        }
    }
    return !bytes.empty() && send_all(both.server, bytes);
}

bool pg_proxy::take_answer(pair &both)
{
    std::string bytes = receive(both.server);
    const std::lock_guard lock(guard);
    if (both.chosen && answers && then == behind::the_server) {
        both.left_out =
            (both.left_out + bytes)
                .substr(std::max(both.left_out.size() + bytes.size(), READY_SIZE) - READY_SIZE);
        both.chosen = !both.left_out.starts_with(std::string("Z\0\0\0\5", 5));
        return !bytes.empty();
    }
    if (both.chosen && silent) {
        bytes.resize(std::min(bytes.size(), both.bytes));
        both.bytes -= bytes.size();
        return bytes.empty() || send_all(both.client, bytes);
    }
    const size_t found = both.chosen && changes_left > 0 ? bytes.find(replaced) : std::string::npos;
    if (found != std::string::npos) {
        bytes.replace(found, replaced.size(), replacement);
        changes_left--;
        done = true;
    }
    return !bytes.empty() && send_all(both.client, bytes);
}

// As much as the client takes now.
bool pg_proxy::pour(pair &both)
{
    const ssize_t n = send(both.client, both.flood.data() + both.flood_at,
                           both.flood.size() - both.flood_at, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0)
        return errno == EAGAIN;
    both.flood_at = (both.flood_at + static_cast<size_t>(n)) % both.flood.size();
    const std::lock_guard lock(guard);
    poured_bytes += static_cast<size_t>(n);
    return true;
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

void pg_proxy::serve()
{
    for (;;) {
        std::vector<pollfd> wanted = {{wake[0], POLLIN, 0}, {listener, POLLIN, 0}};
        for (const pair &both : pairs) {
            const bool mute = both.chosen && silent && both.bytes == 0 &&
                              !(answers && then == behind::the_server);
            const bool pours = !both.flood.empty();
            wanted.push_back(
                {both.client, static_cast<short>(pours ? POLLIN | POLLOUT : POLLIN), 0});
            wanted.push_back({mute ? -1 : both.server, POLLIN, 0});
        }
        if (poll(wanted.data(), wanted.size(), -1) < 0 || wanted[0].revents != 0)
            return;
        size_t i = 2;
        for (auto at = pairs.begin(); at != pairs.end(); i += 2) {
            const bool can_pour = (wanted[i].revents & POLLOUT) != 0;
            const bool good = ((wanted[i].revents & ~POLLOUT) == 0 || take_request(*at)) &&
                              (!can_pour || pour(*at)) &&
                              (wanted[i + 1].revents == 0 || take_answer(*at));
            if (good) {
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
