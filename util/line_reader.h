// Lines of a file or pipe, in one buffer that grows to the longest line.
#ifndef UTIL_LINE_READER_H
#define UTIL_LINE_READER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

constexpr size_t LINE_LENGTH_MAX = size_t{256} * 1024 * 1024;

struct line_reader {
    int fd = -1;
    size_t longest = LINE_LENGTH_MAX;
    // Called when the next line has to be waited for, and again after the time in
    // milliseconds that it returned; negative: there is no need to.
    std::function<int()> before_wait;
    uint64_t number = 0; // of the line given last, from 1
    uint64_t bytes = 0;  // given so far, line ends included
    bool torn = false;   // the line given last has no line end: the input ends within it

    std::vector<char> buffer;
    size_t begin = 0;   // of the bytes not given yet
    size_t scanned = 0; // no line end before here
    size_t end = 0;     // of the bytes read
    bool at_end = false;
};

enum line_found {
    LINE_FOUND,
    LINE_END,      // no more input
    LINE_STOPPED,  // a signal asks to stop and no input is waiting
    LINE_TOO_LONG, // line number + 1 is longer than the longest allowed
    LINE_ERROR,    // reading failed: errno
};

// Gives the next line without its line end, valid until the next call.
line_found line_reader_next(line_reader &reader, std::string_view &line);

#endif
