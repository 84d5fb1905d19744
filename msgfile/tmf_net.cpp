// Wake-up datagrams.
#include "msgfile/tmf_net.h"

#include "msgfile/tmf_common.h"
#include "msgfile/tmf_error.h"
#include "msgfile/tmu.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

int tmf_start_net()
{
    return 0;
}

int tmf_net_cleanup()
{
    return 0;
}

int tmf_above_standard(int fd)
{
    if (fd > STDERR_FILENO)
        return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int moved_errno = errno;
    (void)close(fd); // the copy, if there is one, keeps it open
    errno = moved_errno;
    return moved;
}

int tmf_close_socket(int socket)
{
    (void)close(socket); // a datagram socket holds nothing back
    return 0;
}

static void close_and_clear(int *socket)
{
    if (*socket != 0)
        (void)tmf_close_socket(*socket);
    *socket = 0;
}

void tmf_net_close(tmf_handle *h)
{
    close_and_clear(&h->send.socket);
    close_and_clear(&h->receive.socket);
    (void)tmf_net_cleanup(); // cannot fail on this platform
}

// A datagram socket, or -1 with errno set.  Never 0, which stands for none.
static int open_socket()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    return fd < 0 ? fd : tmf_above_standard(fd);
}

static sockaddr_in address_of(const unsigned char addr[4], uint16_t port)
{
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    memcpy(&to.sin_addr, addr, sizeof(to.sin_addr));
    return to;
}

// ---- sending

void tmfc_calc_msg(const tmf_common *common, char kind, unsigned char *message)
{
    message[0] = TMF_SIGNAL_FIRST;
    message[TMF_SIGNAL_KIND_AT] = static_cast<unsigned char>(kind);
    message[TMF_SIGNAL_ZERO_AT] = 0;
    message[TMF_SIGNAL_LENGTH_AT] = TMF_STAMP_SIZE;
    memcpy(message + TMF_SIGNAL_STAMP_AT, common->file_stamp, TMF_STAMP_SIZE);
}

bool tmfc_valid_msg(const unsigned char * /*message*/, int /*length*/)
{
    return true;
}

int tmf_udp_send(tmf_handle *h, const unsigned char addr[4], uint16_t port, const void *buf,
                 size_t n)
{
    tmf_send_state &send = h->send;
    if (send.socket == 0 || send.port != port) {
        close_and_clear(&send.socket);
        send.port = port;
        const int fd = open_socket();
        if (fd < 0) {
            const int os_errno = errno;
            send = tmf_send_state{};
            return tmf_network_error(h, TMF_ESEND, "socket()", os_errno);
        }
        send.socket = fd;
        send.addr = address_of(addr, port);
        send.addr_len = sizeof(send.addr);
    }
    if (sendto(send.socket, buf, n, 0, reinterpret_cast<const sockaddr *>(&send.addr),
               send.addr_len) >= 0)
        return 0;
    // A full queue belongs to a reader that has wake-ups enough.
    if (errno == EAGAIN)
        return 0;
    const int os_errno = errno;
    close_and_clear(&send.socket);
    return tmf_network_error(h, TMF_ESEND, "sendto()", os_errno);
}

int tmf_signal_readers(tmf_handle *h, char kind)
{
    static const unsigned char nobody[sizeof(tmf_common::wait_list)] = {};
    if (memcmp(h->common->wait_list, nobody, sizeof(nobody)) == 0)
        return 0;
    unsigned char message[TMF_SIGNAL_SIZE];
    tmfc_calc_msg(h->common, kind, message);
    const int slots = tmfc_reader_slots(h->common);
    for (int i = 0; i < slots; i++) {
        if (tmu_get_bit(h->common->wait_list, i) == 0)
            continue;
        const int code = tmf_udp_send(h, h->common->signal_addr, tmc_get_signal_port(h->common, i),
                                      message, sizeof(message));
        if (code != 0)
            return code;
    }
    return 0;
}

// ---- receiving

int tmf_set_nonblocking(tmf_handle *h, int socket, int on)
{
    if (fcntl(socket, F_SETFL, on != 0 ? O_NONBLOCK : 0) < 0 && on != 0)
        return tmf_network_error(h, TMF_ENONBLOCK, "fcntl()", errno);
    return 0;
}

// Binds a new receive socket to port.
static int open_receiver(tmf_handle *h, uint16_t port, int seconds)
{
    tmf_receive_state &receive = h->receive;
    close_and_clear(&receive.socket);
    receive.port = port;
    const int fd = open_socket();
    if (fd < 0)
        return tmf_network_error(h, TMF_ERECEIVE, "socket()", errno);
    const unsigned char any[4] = {};
    const sockaddr_in here = address_of(any, port);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&here), sizeof(here)) < 0) {
        const int os_errno = errno;
        (void)tmf_close_socket(fd);
        if (os_errno == EADDRINUSE)
            return TMF_EPORTBUSY;
        return tmf_network_error(h, TMF_ERECEIVE, "bind()", os_errno);
    }
    if (seconds != 0) {
        const int code = tmf_set_nonblocking(h, fd, 1);
        if (code != 0) {
            (void)tmf_close_socket(fd);
            return code;
        }
    }
    receive.socket = fd;
    return 0;
}

// Waits for the socket: more than 0 when a datagram is there, 0 when the time is
// over, negative with errno set.
static int wait_readable(int socket, int seconds)
{
    pollfd readable = {.fd = socket, .events = POLLIN, .revents = 0};
    const int limit = seconds < 1 ? -1 : std::min(seconds, INT_MAX / 1000) * 1000;
    return poll(&readable, 1, limit);
}

int tmf_udp_bind(tmf_handle *h, uint16_t port, int seconds)
{
    const bool bound = h->receive.socket != 0 && h->receive.port == port;
    return bound ? 0 : open_receiver(h, port, seconds);
}

int tmf_udp_recv(tmf_handle *h, uint16_t port, int seconds, void *buf, size_t n)
{
    const int code = tmf_udp_bind(h, port, seconds);
    if (code != 0)
        return code;
    ssize_t got = recvfrom(h->receive.socket, buf, n, 0, nullptr, nullptr);
    if (got >= 0)
        return static_cast<int>(got);
    if (errno != EAGAIN || seconds == 0)
        return tmf_network_error(h, TMF_ERECEIVE, "recvfrom()", errno);
    const int ready = wait_readable(h->receive.socket, seconds);
    if (ready < 0) {
        if (errno == EINTR)
            return TMF_EINTERRUPT;
        // Kept: the text names select, though poll does its work, which a process
        // with more descriptors than select knows can use, too.
        return tmf_network_error(h, TMF_ERECEIVE, "select()", errno);
    }
    if (ready == 0)
        return 0;
    got = recvfrom(h->receive.socket, buf, n, 0, nullptr, nullptr);
    if (got >= 0)
        return static_cast<int>(got);
    return tmf_network_error(h, TMF_ERECEIVE, "recvfrom()", errno);
}
