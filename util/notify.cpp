// A socket for each message: none is left open among the program's files, and a manager
// that was started anew is found again.
#include "util/notify.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// The address of NOTIFY_SOCKET; its length, or 0.
static socklen_t find_address(sockaddr_un &address)
{
    const char *value = getenv("NOTIFY_SOCKET");
    const std::string_view name = value == nullptr ? "" : value;
    address = {};
    // Of two characters at least, and a path with its NUL.
    if (name.size() < 2 || name.size() >= sizeof address.sun_path ||
        (name[0] != '/' && name[0] != '@'))
        return 0;
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name.data(), name.size());
    const bool abstract = name[0] == '@';
    if (abstract)
        address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() +
                                  (abstract ? 0 : 1));
}

bool notify_wanted()
{
    sockaddr_un address;
    return find_address(address) != 0;
}

bool notify_send(const std::string &lines)
{
    sockaddr_un address;
    const socklen_t length = find_address(address);
    const int fd = length == 0 ? -1 : socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const ssize_t sent = sendto(fd, lines.data(), lines.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr *>(&address), length);
    (void)close(fd); // nothing is kept in it
    return sent == static_cast<ssize_t>(lines.size());
}

std::string notify_value(const std::string &text)
{
    std::string value = text;
    std::replace_if(
        value.begin(), value.end(), [](char c) { return c == '\n' || c == '\0'; }, ' ');
    return value;
}

// A number of a variable that is one whole, above 0; else 0.
static int64_t number_of(const char *name)
{
    const char *text = getenv(name);
    int64_t value = 0;
    if (text == nullptr)
        return 0;
    const auto [end, error] = std::from_chars(text, text + strlen(text), value);
    return error == std::errc() && *end == '\0' && value > 0 ? value : 0;
}

int64_t notify_watchdog_us()
{
    const char *pid = getenv("WATCHDOG_PID");
    const bool ours = pid == nullptr || *pid == '\0' || number_of("WATCHDOG_PID") == getpid();
    return ours && notify_wanted() ? number_of("WATCHDOG_USEC") : 0;
}
