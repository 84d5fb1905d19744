// Positioned input and output on a handle's descriptor.
#include "msgfile/tmf_io.h"

#include <unistd.h>

int tmf_seek(const tmf_handle *h, int32_t at, int error, int eof)
{
    if (h->seek_proven)
        return at < 0 ? error : 0;
    const off_t reached = lseek(h->fd, at, SEEK_SET);
    if (reached < 0)
        return error;
    return reached == at ? 0 : eof;
}

ssize_t tmf_read_at(const tmf_handle *h, int32_t at, void *buf, size_t n)
{
    return h->seek_proven ? pread(h->fd, buf, n, at) : read(h->fd, buf, n);
}

ssize_t tmf_write_at(const tmf_handle *h, int32_t at, const void *buf, size_t n)
{
    return h->seek_proven ? pwrite(h->fd, buf, n, at) : write(h->fd, buf, n);
}
