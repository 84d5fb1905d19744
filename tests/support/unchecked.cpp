// The C library's checked functions, which an optimised build calls where it knows a buffer's size,
// as the plain ones: tests replace those, whichever of the two was compiled in.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" ssize_t __read_chk(int fd, void *buf, size_t n, size_t /*size*/)
{
    return read(fd, buf, n);
}

extern "C" ssize_t __pread64_chk(int fd, void *buf, size_t n, off_t at, size_t /*size*/)
{
    return pread(fd, buf, n, at);
}

extern "C" ssize_t __recv_chk(int fd, void *buf, size_t n, size_t /*size*/, int flags)
{
    return recv(fd, buf, n, flags);
}

extern "C" ssize_t __recvfrom_chk(int fd, void *buf, size_t n, size_t /*size*/, int flags,
                                  sockaddr *from, socklen_t *from_size)
{
    return recvfrom(fd, buf, n, flags, from, from_size);
}

extern "C" int __poll_chk(pollfd *fds, nfds_t n, int timeout, size_t /*size*/)
{
    return poll(fds, n, timeout);
}
