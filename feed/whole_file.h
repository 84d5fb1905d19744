// A small file beside the log that is made anew whole: its first line tells its form, its last
// one the checksum of what stands before.
#ifndef FEED_WHOLE_FILE_H
#define FEED_WHOLE_FILE_H

#include <string>
#include <string_view>
#include <sys/types.h>

enum feed_whole {
    FEED_WHOLE,
    FEED_WHOLE_NONE,    // there is no such file
    FEED_WHOLE_DAMAGED, // or of another form
    FEED_WHOLE_FAILED,  // with errno
};

// A file's bytes as they are; 0, or -1 with errno.
int feed_file_read(std::string &text, const std::string &path);

// Reads the lines between the first and the last one.  first ends with a line end.
feed_whole feed_whole_read(std::string &lines, const std::string &path, std::string_view first);

// Writes the file beside its name and renames it into place; it is on disk when the call returns.
// False with errno; what was there is there then, whole, or what was to be.
bool feed_whole_write(const std::string &path, mode_t mode, std::string_view first,
                      std::string_view lines);

#endif
