// System calls that a hostile file could turn against others: the linker leads them here.  No
// datagram leaves the process, whatever address and port a file names, and no wait lasts.
#include <cstddef>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>

extern "C" {
ssize_t __wrap_sendto(int, const void *, size_t length, int, const sockaddr *, socklen_t);
int __wrap_bind(int, const sockaddr *, socklen_t);
int __wrap_poll(pollfd *, nfds_t, int);
int __wrap_nanosleep(const timespec *, timespec *);

ssize_t __wrap_sendto(int, const void *, size_t length, int, const sockaddr *, socklen_t)
{
    return static_cast<ssize_t>(length);
}

int __wrap_bind(int, const sockaddr *, socklen_t)
{
    return 0;
}

// What is written to is ready; of all else the time is over.
int __wrap_poll(pollfd *fds, nfds_t n, int)
{
    int ready = 0;
    for (nfds_t i = 0; i < n; i++) {
        fds[i].revents = static_cast<short>(fds[i].events & POLLOUT);
        ready += fds[i].revents != 0 ? 1 : 0;
    }
    return ready;
}

int __wrap_nanosleep(const timespec *, timespec *)
{
    return 0;
}
}
