// The rows.  Calls of the old names, which no library makes by now on this machine, have none.
#include "tests/calls/call_rows.h"

#include <cerrno>
#include <cstring>
#include <sys/syscall.h>

constexpr unsigned ON_A_NAME = GIVES_IO | GIVES_ACCESS;
constexpr unsigned MAKING = ON_A_NAME | GIVES_SPACE;

// clang-format off
static constexpr call_row rows[] = {
    {SYS_open,       "open",       OF_PATH,   0, -1, -1, -1, MAKING | GIVES_EINTR | GIVES_FILES},
    {SYS_openat,     "openat",     OF_PATH,   1,  0, -1, -1, MAKING | GIVES_EINTR | GIVES_FILES},
    {SYS_stat,       "stat",       OF_PATH,   0, -1, -1, -1, ON_A_NAME},
    {SYS_lstat,      "lstat",      OF_PATH,   0, -1, -1, -1, ON_A_NAME},
    {SYS_newfstatat, "newfstatat", OF_PATH,   1,  0, -1, -1, ON_A_NAME},
    {SYS_statx,      "statx",      OF_PATH,   1,  0, -1, -1, ON_A_NAME},
    {SYS_access,     "access",     OF_PATH,   0, -1, -1, -1, ON_A_NAME},
    {SYS_faccessat,  "faccessat",  OF_PATH,   1,  0, -1, -1, ON_A_NAME},
    {SYS_readlink,   "readlink",   OF_PATH,   0, -1, -1, -1, ON_A_NAME},
    {SYS_readlinkat, "readlinkat", OF_PATH,   1,  0, -1, -1, ON_A_NAME},
    {SYS_statfs,     "statfs",     OF_PATH,   0, -1, -1, -1, ON_A_NAME},
    {SYS_rename,     "rename",     OF_PATH,   0, -1, -1, -1, MAKING},
    {SYS_renameat,   "renameat",   OF_PATH,   1,  0, -1, -1, MAKING},
    {SYS_renameat2,  "renameat2",  OF_PATH,   1,  0, -1, -1, MAKING},
    {SYS_link,       "link",       OF_PATH,   0, -1, -1, -1, MAKING},
    {SYS_linkat,     "linkat",     OF_PATH,   1,  0, -1, -1, MAKING},
    {SYS_symlink,    "symlink",    OF_PATH,   1, -1, -1, -1, MAKING},
    {SYS_mkdir,      "mkdir",      OF_PATH,   0, -1, -1, -1, MAKING},
    {SYS_mkdirat,    "mkdirat",    OF_PATH,   1,  0, -1, -1, MAKING},
    {SYS_rmdir,      "rmdir",      OF_PATH,   0, -1, -1, -1, ON_A_NAME},
    {SYS_unlink,     "unlink",     OF_PATH,   0, -1, -1, -1, ON_A_NAME},
    {SYS_unlinkat,   "unlinkat",   OF_PATH,   1,  0, -1, -1, ON_A_NAME},
    {SYS_chmod,      "chmod",      OF_PATH,   0, -1, -1, -1, ON_A_NAME},
    {SYS_fchmodat,   "fchmodat",   OF_PATH,   1,  0, -1, -1, ON_A_NAME},
    {SYS_truncate,   "truncate",   OF_PATH,   0, -1, -1, -1, MAKING},
    {SYS_utimensat,  "utimensat",  OF_PATH,   1,  0, -1, -1, ON_A_NAME},
    {SYS_fstat,      "fstat",      OF_FILE,   0, -1, -1, -1, GIVES_IO},
    {SYS_fstatfs,    "fstatfs",    OF_FILE,   0, -1, -1, -1, GIVES_IO},
    {SYS_getdents64, "getdents64", OF_FILE,   0, -1, -1, -1, GIVES_IO},
    {SYS_fchmod,     "fchmod",     OF_FILE,   0, -1, -1, -1, GIVES_IO},
    {SYS_lseek,      "lseek",      OF_FILE,   0, -1, -1, -1, GIVES_IO},
    {SYS_read,       "read",       OF_FILE,   0, -1,  2, -1, GIVES_IO | GIVES_EINTR | GIVES_HALF},
    {SYS_pread64,    "pread64",    OF_FILE,   0, -1,  2,  3, GIVES_IO | GIVES_EINTR | GIVES_HALF},
    {SYS_readv,      "readv",      OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_EINTR},
    {SYS_write,      "write",      OF_FILE,   0, -1,  2, -1, GIVES_IO | GIVES_EINTR | GIVES_SPACE | GIVES_HALF},
    {SYS_pwrite64,   "pwrite64",   OF_FILE,   0, -1,  2,  3, GIVES_IO | GIVES_EINTR | GIVES_SPACE | GIVES_HALF},
    {SYS_writev,     "writev",     OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_EINTR | GIVES_SPACE},
    {SYS_pwritev,    "pwritev",    OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_EINTR | GIVES_SPACE},
    {SYS_copy_file_range, "copy_file_range", OF_FILE, 0, -1, 4, -1, GIVES_IO | GIVES_SPACE | GIVES_HALF},
    {SYS_sendfile,   "sendfile",   OF_FILE,   1, -1,  3, -1, GIVES_IO | GIVES_SPACE | GIVES_HALF},
    {SYS_fsync,      "fsync",      OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_SPACE | GIVES_EINTR},
    {SYS_fdatasync,  "fdatasync",  OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_SPACE | GIVES_EINTR},
    {SYS_syncfs,     "syncfs",     OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_SPACE},
    {SYS_sync_file_range, "sync_file_range", OF_FILE, 0, -1, -1, -1, GIVES_IO | GIVES_SPACE},
    {SYS_ftruncate,  "ftruncate",  OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_EINTR | GIVES_SPACE},
    {SYS_fallocate,  "fallocate",  OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_EINTR | GIVES_SPACE},
    {SYS_flock,      "flock",      OF_FILE,   0, -1, -1, -1, GIVES_EINTR | GIVES_LOCKS},
    {SYS_fcntl,      "fcntl",      OF_FILE,   0, -1, -1, -1, GIVES_EINTR | GIVES_LOCKS | GIVES_IO},
    {SYS_dup,        "dup",        OF_FILE,   0, -1, -1, -1, GIVES_FILES},
    {SYS_close,      "close",      OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_EINTR | GIVES_SPACE},
    {SYS_mmap,       "mmap",       OF_FILE,   4, -1, -1, -1, GIVES_MEMORY},
    {SYS_socket,     "socket",     OF_SOCKET, 0, -1, -1, -1, GIVES_FILES | GIVES_BUFFERS | GIVES_ACCESS},
    {SYS_bind,       "bind",       OF_FILE,   0, -1, -1, -1, GIVES_ACCESS | GIVES_BUFFERS},
    {SYS_connect,    "connect",    OF_FILE,   0, -1, -1, -1, GIVES_ACCESS | GIVES_EINTR},
    {SYS_getsockname, "getsockname", OF_FILE, 0, -1, -1, -1, GIVES_BUFFERS},
    {SYS_getsockopt, "getsockopt", OF_FILE,   0, -1, -1, -1, GIVES_BUFFERS},
    {SYS_setsockopt, "setsockopt", OF_FILE,   0, -1, -1, -1, GIVES_BUFFERS},
    {SYS_sendto,     "sendto",     OF_FILE,   0, -1,  2, -1, GIVES_IO | GIVES_EINTR | GIVES_BUFFERS | GIVES_ACCESS | GIVES_RESET | GIVES_HALF},
    {SYS_recvfrom,   "recvfrom",   OF_FILE,   0, -1,  2, -1, GIVES_IO | GIVES_EINTR | GIVES_RESET | GIVES_HALF},
    {SYS_sendmsg,    "sendmsg",    OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_EINTR | GIVES_BUFFERS},
    {SYS_recvmsg,    "recvmsg",    OF_FILE,   0, -1, -1, -1, GIVES_IO | GIVES_EINTR},
    {SYS_poll,       "poll",       OF_ANY,    0, -1, -1, -1, GIVES_EINTR | GIVES_MEMORY},
    {SYS_ppoll,      "ppoll",      OF_ANY,    0, -1, -1, -1, GIVES_EINTR | GIVES_MEMORY},
    {SYS_select,     "select",     OF_ANY,    0, -1, -1, -1, GIVES_EINTR | GIVES_MEMORY},
    {SYS_pselect6,   "pselect6",   OF_ANY,    0, -1, -1, -1, GIVES_EINTR | GIVES_MEMORY},
};
// clang-format on

const call_row *find_call_row(long number)
{
    for (const call_row &row : rows)
        if (row.number == number)
            return &row;
    return nullptr;
}

std::vector<blow> blows_of(const call_row &row)
{
    static constexpr struct {
        unsigned bit;
        int os_errno;
    } errors[] = {{GIVES_IO, EIO},          {GIVES_EINTR, EINTR},   {GIVES_SPACE, ENOSPC},
                  {GIVES_SPACE, EDQUOT},    {GIVES_FILES, EMFILE},  {GIVES_LOCKS, ENOLCK},
                  {GIVES_MEMORY, ENOMEM},   {GIVES_ACCESS, EACCES}, {GIVES_BUFFERS, ENOBUFS},
                  {GIVES_RESET, ECONNRESET}};
    std::vector<blow> blows = {{BLOW_KILL_BEFORE, 0}, {BLOW_KILL_AFTER, 0}};
    for (const auto &error : errors)
        if ((row.gives & error.bit) != 0)
            blows.push_back({BLOW_FAIL, error.os_errno});
    if ((row.gives & GIVES_HALF) != 0)
        blows.push_back({BLOW_HALF, 0});
    return blows;
}

std::string blow::text() const
{
    switch (kind) {
    case BLOW_FAIL:
        return strerrorname_np(os_errno);
    case BLOW_HALF:
        return "half of the bytes";
    case BLOW_KILL_BEFORE:
        return "killed before";
    case BLOW_KILL_AFTER:
        return "killed behind";
    default:
        return "nothing";
    }
}
