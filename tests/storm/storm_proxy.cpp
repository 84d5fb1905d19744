// One thread passes pieces between each client and a connection of its own to the server.
#include "tests/storm/storm_proxy.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

constexpr int ROUND_MS = 10; // within which a new mood is seen

storm_proxy::storm_proxy(std::string socket_path) : path_(std::move(socket_path))
{
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        listen(listener_, 64) != 0 || pipe2(wake_, O_CLOEXEC) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        throw std::runtime_error("no port for the proxy");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

storm_proxy::~storm_proxy()
{
    close(wake_[1]);
    thread_.join();
    for (const pair &both : pairs_)
        end(both, false);
    close(wake_[0]);
    close(listener_);
}

// With a reset the other side does not get what was not read yet, either.
void storm_proxy::end(const pair &both, bool reset)
{
    if (reset) {
        const linger at_once = {1, 0};
        (void)setsockopt(both.client, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        resets_++;
    }
    close(both.client);
    close(both.server);
}

// Passes one piece on; false when the connection is over, or has had its bytes.
bool storm_proxy::pass_on(int from, int to, long *bytes)
{
    std::array<char, 16384> piece;
    const ssize_t n = recv(from, piece.data(), piece.size(), 0);
    if (n <= 0)
        return false;
    const long most = bytes != nullptr && *bytes >= 0 ? std::min<long>(n, *bytes) : n;
    if (bytes != nullptr && *bytes >= 0)
        *bytes -= most;
    return send(to, piece.data(), static_cast<size_t>(most), MSG_NOSIGNAL) == most &&
           (bytes == nullptr || *bytes != 0);
}

void storm_proxy::take_new()
{
    pair fresh;
    fresh.client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    fresh.server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    if (fresh.client >= 0 && fresh.server >= 0 &&
        connect(fresh.server, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        pairs_.push_back(fresh);
    else
        end(fresh, false);
}

void storm_proxy::serve()
{
    for (;;) {
        const int resetting = reset_behind_.exchange(-1);
        if (resetting >= 0)
            for (pair &both : pairs_)
                both.bytes = resetting;
        // While it is stalled nothing but the end of it all is looked at.
        const bool stalled = stalled_;
        std::vector<pollfd> wanted = {{wake_[0], POLLIN, 0}, {stalled ? -1 : listener_, POLLIN, 0}};
        for (const pair &both : pairs_) {
            wanted.push_back({stalled ? -1 : both.client, POLLIN, 0});
            wanted.push_back({stalled ? -1 : both.server, POLLIN, 0});
        }
        if (poll(wanted.data(), wanted.size(), ROUND_MS) < 0 || wanted[0].revents != 0)
            return;
        bool passed = false;
        size_t i = 2;
        for (auto at = pairs_.begin(); at != pairs_.end(); i += 2) {
            passed = passed || wanted[i].revents != 0 || wanted[i + 1].revents != 0;
            const bool good =
                at->bytes != 0 &&
                (wanted[i].revents == 0 || pass_on(at->client, at->server, nullptr)) &&
                (wanted[i + 1].revents == 0 || pass_on(at->server, at->client, &at->bytes));
            if (good) {
                ++at;
                continue;
            }
            end(*at, at->bytes == 0);
            at = pairs_.erase(at);
        }
        if (wanted[1].revents != 0)
            take_new();
        if (passed && delay_ms_ > 0)
            usleep(static_cast<useconds_t>(delay_ms_) * 1000);
    }
}
