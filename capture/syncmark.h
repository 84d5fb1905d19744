// The mark: how far the capture files of a run were on disk, as text, one line each:
//
//   file KIND INODE END CHECKSUM PATH
//
// KIND the name of the output format, text or message; INODE 0 for a file that is not there; END in
// bytes, of a message file where its next record goes, -1 when that is not known; CHECKSUM, 16 hex
// digits, of a message file's bytes before that; PATH absolute, with
// "%25" and "%0A" for "%" and line end.
#ifndef CAPTURE_SYNCMARK_H
#define CAPTURE_SYNCMARK_H

#include <cstdint>
#include <string>

struct cap_format;
struct capfil;

struct mark_line {
    const cap_format *format = nullptr;
    uint64_t inode = 0;
    int64_t end = 0;
    uint64_t checksum = 0;
    std::string path;
};

// A file's name as an absolute path.
std::string mark_path(const char *name);

// Appends the line of a capture file, open or not; none for a pipe or a device.
// none_open: no capture file is open.  absent: whether no file has the name.  0, or the code of the
// message.
int mark_add(std::string &mark, capfil *cf, bool none_open, bool &absent);

// Takes the next line from *text on, which moves behind it.  False at the end and,
// with *good false, for a line that is none.
bool mark_next(const char **text, mark_line &line, bool *good);

#endif
