// A service manager's socket in a test: takes the messages that programs send.
#ifndef TESTS_SUPPORT_NOTIFIED_H
#define TESTS_SUPPORT_NOTIFIED_H

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

class notified {
  public:
    // A path, or "@" and an abstract name.
    explicit notified(const std::string &name) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        if (name.size() >= sizeof address.sun_path)
            throw std::runtime_error("too long for a socket: " + name);
        memcpy(address.sun_path, name.data(), name.size());
        if (name[0] == '@')
            address.sun_path[0] = '\0';
        const size_t length = offsetof(sockaddr_un, sun_path) + name.size() + (name[0] != '@');
        if (bind(fd_, reinterpret_cast<sockaddr *>(&address), static_cast<socklen_t>(length)) != 0)
            throw std::runtime_error("cannot bind " + name);
    }
    ~notified()
    {
        close(fd_);
    }
    notified(const notified &) = delete;
    notified &operator=(const notified &) = delete;

    // The next message that is there, or nothing.
    std::string next() const
    {
        char text[8192];
        const ssize_t n = recv(fd_, text, sizeof text, MSG_DONTWAIT);
        return n <= 0 ? "" : std::string(text, static_cast<size_t>(n));
    }

  private:
    int fd_;
};

#endif
