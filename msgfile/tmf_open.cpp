// Opening and closing: the handle's life.
#include "msgfile/tmf_open.h"

#include "msgfile/tmf_area.h"
#include "msgfile/tmf_common.h"
#include "msgfile/tmf_error.h"
#include "msgfile/tmf_io.h"
#include "msgfile/tmf_net.h"
#include "msgfile/tmf_users.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

tmf_handle *tmf_new(int fd, const char *path, int mode)
{
    tmf_handle *h = static_cast<tmf_handle *>(calloc(1, sizeof(tmf_handle)));
    if (h == nullptr)
        return nullptr;
    h->path = strdup(path);
    if (h->path == nullptr) {
        free(h);
        return nullptr;
    }
    h->fd = fd;
    h->file = &tmf_seeking_row;
    h->is_reader = mode & TMF_MODE_READ;
    h->copy_mode = mode & TMF_MODE_COPY;
    h->exclusive = mode & TMF_MODE_EXCLUSIVE;
    h->record_pids = 1;
    h->user_id = TMF_NO_USER;
    return h;
}

void tmf_free_mf(tmf_handle *h)
{
    if (h == nullptr)
        return;
    tmf_net_close(h);
    (void)close(h->fd); // everything is written; nothing is left to fail
    free(h->path);
    free(h->aux_buffer);
    free(h->record_buffer);
    free(h);
}

// The descriptor, or -1 with errno set.
static int open_file(const char *path, int mode)
{
    int permissions = 0600;
    mode_t mask = 0;
    const bool all_users = (mode & TMF_MODE_ALL_USERS) != 0;
    if (all_users) {
        mask = umask(0);
        permissions = 0666;
    }
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, permissions);
    const int open_errno = errno;
    if (all_users)
        umask(mask);
    errno = open_errno;
    return fd < 0 ? fd : tmf_above_standard(fd);
}

tmf_handle *tmf_init_tmf_file(const char *path, int mode)
{
    const int reads_alone = TMF_MODE_READ | TMF_MODE_EXCLUSIVE;
    if ((mode & TMF_MODE_COPY) != 0 && (mode & reads_alone) != reads_alone) {
        tmf_set_error(nullptr, TMF_ECOPYMODE);
        return nullptr;
    }
    const int fd = open_file(path, mode);
    if (fd < 0) {
        tmf_os_error(nullptr, TMF_EOPEN, errno);
        return nullptr;
    }
    tmf_handle *h = tmf_new(fd, path, mode);
    if (h == nullptr) {
        (void)close(fd); // nothing was written
        tmf_os_error(nullptr, TMF_EOPEN, ENOMEM);
        return nullptr;
    }
    int code = tmf_ensure_common(h);
    if (code == 0)
        code = tmf_update_users(h);
    if (code == 0) {
        if (h->common->num_readers + h->common->num_writers == 0)
            tmfc_first_user_setup(h->common);
        code = tmf_start_net();
    }
    if (code != 0) {
        tmf_set_error(nullptr, code);
        (void)tmf_unlock_common(h); // the first error is the one to report
        tmf_free_mf(h);
        return nullptr;
    }
    return h;
}

// Writes the registration to the file and gives the handle out, or takes all
// back.  code: the result of registering.
static tmf_handle *finish_open(tmf_handle *h, int code)
{
    const int release_code = tmf_release_common(h);
    if (code == 0)
        code = release_code;
    if (code == 0)
        return h;
    tmf_set_error(nullptr, code);
    // Kept: the area is unlocked by now, so that the registration stays in the
    // file until the next purge.
    (void)tmf_close_file(h);
    return nullptr;
}

tmf_handle *tmf_fopen_read(const char *path, int mode)
{
    tmf_handle *h = tmf_init_tmf_file(path, mode);
    if (h == nullptr)
        return nullptr;
    h->user_id = tmfc_get_reader_user_id(h->common, mode);
    const int code = h->user_id < 0 ? h->user_id : tmf_lock_user_reader(h);
    h->signal_port = tmc_get_signal_port(h->common, h->user_id);
    return finish_open(h, code);
}

tmf_handle *tmf_fopen_write(const char *path, int mode)
{
    tmf_handle *h = tmf_init_tmf_file(path, mode);
    if (h == nullptr)
        return nullptr;
    h->user_id = tmfc_get_writer_user_id(h->common, mode);
    return finish_open(h, h->user_id < 0 ? h->user_id : tmf_lock_user_writer(h));
}

int tmf_close_file(tmf_handle *h)
{
    // A registration that is not there and a slot that cannot be written are no
    // reason to keep the handle; the next purge sees the slot unlocked.
    if (h->is_reader != 0) {
        (void)tmfc_clear_reader_user_id(h->common, h->user_id);
        (void)tmf_unlock_user_reader(h);
    } else {
        (void)tmfc_clear_writer_user_id(h->common, h->user_id);
        (void)tmf_unlock_user_writer(h);
    }
    const int code = tmf_release_common(h);
    tmf_clearerr(h);
    tmf_free_mf(h);
    return code;
}
