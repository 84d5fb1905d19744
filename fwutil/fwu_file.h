// Files of the log directory as its writer makes them: with their mode whatever
// the umask is, and by name only once they are on disk.
#ifndef FWUTIL_FWU_FILE_H
#define FWUTIL_FWU_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

// Reports "path: what: system's text"; -1.
int fwu_file_error(const std::string &path, const char *what);

// Opens a file with flags of open(2); one that is not there is made with this
// mode.  A descriptor, or -1 with errno.
int fwu_file_open(const std::string &path, int flags, mode_t mode);

// Of files with this mode, that of one which is there to be locked: who may read a file may hold it
// locked, so that it is for those only who may write.
mode_t fwu_file_lock_mode(mode_t mode);

// Makes a file that is going to be renamed.  What has its name, of a run that was killed or put
// there by somebody else, is taken away, not written to.  A descriptor, or -1 with errno.
int fwu_file_anew(const std::string &path, int flags, mode_t mode);

// Writes all bytes at offset, going on after partial writes; 0, or -1 with errno.
int fwu_write_all(int fd, const void *data, size_t length, int64_t offset);

// Reads what comes next, up to length bytes; 0 at the end, or -1 with errno.
ssize_t fwu_read_some(int fd, void *data, size_t length);

// Reads the bytes at offset, going on after a part of them; as many as the file has, or -1 with
// errno.
ssize_t fwu_read_all(int fd, void *data, size_t length, int64_t offset);

// Whether the file holds zeros only: a system that went down before it wrote it.
bool fwu_file_all_zero(const std::string &path);

// Copies what stands between two offsets of a file, or up to its end, into a file of its
// own, on disk; 0, or -1 with errno and nothing left.
int fwu_file_copy(const std::string &from, int64_t offset, int64_t end, const std::string &to,
                  mode_t mode);

// The directory that a path's name stands in, "." where the path is a name alone.
std::string fwu_directory_of(const std::string &path);

// Brings what a file holds, or the names in a directory, to disk; 0, or -1 with errno.
int fwu_path_sync(const std::string &path);

// Brings names made in the log directory to disk; 0 or -1 (reported).
int fwu_directory_sync(const std::string &directory);

#endif
