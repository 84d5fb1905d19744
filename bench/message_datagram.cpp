// A bare hand-over by datagram: the reader blocks in recv, the writer sends the
// record itself.  The reader leaves its port in the file at path, so it is opened
// first.
#include "bench/message_queue.h"
#include "bench/message_run.h"

#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

static sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = port;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

static void exchange_port(const char *path, const char *mode, uint16_t *port)
{
    FILE *file = fopen(path, mode);
    const bool done = file != nullptr && (*mode == 'w' ? fwrite(port, sizeof(*port), 1, file)
                                                       : fread(port, sizeof(*port), 1, file)) == 1;
    if (!done || fclose(file) != 0)
        run_fail("cannot exchange the port of the datagrams");
}

static void *datagram_open(const char *path, bool reader)
{
    int *fd = new int(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    bool done = *fd >= 0;
    if (reader) {
        socklen_t length = sizeof(address);
        done = done && bind(*fd, generic, sizeof(address)) == 0 &&
               getsockname(*fd, generic, &length) == 0;
        exchange_port(path, "w", &address.sin_port);
    } else {
        exchange_port(path, "r", &address.sin_port);
        done = done && connect(*fd, generic, sizeof(address)) == 0;
    }
    if (!done)
        run_fail("cannot open a socket");
    return fd;
}

static void datagram_append(void *queue, const void *record, int size)
{
    if (send(*static_cast<int *>(queue), record, static_cast<size_t>(size), 0) != size)
        run_fail("cannot send a datagram");
}

static int datagram_take(void *queue, void *buf, int size)
{
    const ssize_t got = recv(*static_cast<int *>(queue), buf, static_cast<size_t>(size), 0);
    if (got < 0)
        run_fail("cannot receive a datagram");
    return static_cast<int>(got);
}

static void datagram_close(void *queue)
{
    auto *fd = static_cast<int *>(queue);
    close(*fd);
    delete fd;
}

const queue_kind datagram_queue = {.name = "datagram",
                                   .open = datagram_open,
                                   .append = datagram_append,
                                   .take = datagram_take,
                                   .close = datagram_close};
