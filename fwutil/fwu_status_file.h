// Making, locking, reading and writing the file itself; for fwu_status alone.
#ifndef FWUTIL_FWU_STATUS_FILE_H
#define FWUTIL_FWU_STATUS_FILE_H

#include <cstddef>
#include <functional>
#include <string>

// The whole file; one that is too long for a status file is cut short.  0, or -1
// (reported).
int fwu_status_file_read(const std::string &path, int fd, std::string &bytes);

// Opens and locks a file; makes it when it is not there, where a link of its name leads.  A new one
// gets its name when fill has written it through the descriptor (0, else -1, reported) and it is on
// disk, so that nobody ever finds it unfinished.  created: fill was called.  The descriptor, or -1
// (reported).
int fwu_status_file_open(const std::string &path, const std::function<int(int)> &fill,
                         bool &created);

// Each writes through the descriptor or forces it to disk; 0, or -1 (reported).
int fwu_status_file_write(const std::string &path, int fd, const std::string &bytes, size_t at);
int fwu_status_file_cut(const std::string &path, int fd, size_t size);
int fwu_status_file_force(const std::string &path, int fd);

// Whether the descriptor's file still has that name; where it has not, errno is 0 or why the
// name leads nowhere.
bool fwu_status_file_named(const std::string &path, int fd);

#endif
