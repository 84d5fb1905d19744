// Bytes not given yet move to the front of the buffer before it is filled
// again; only a line longer than half the buffer makes it grow.
#include "util/line_reader.h"

#include "util/stop_signal.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

static constexpr size_t FIRST_SIZE = size_t{1024} * 1024;

static void make_room(line_reader &reader)
{
    if (reader.begin > 0) {
        memmove(reader.buffer.data(), reader.buffer.data() + reader.begin,
                reader.end - reader.begin);
        reader.scanned -= reader.begin;
        reader.end -= reader.begin;
        reader.begin = 0;
    }
    if (reader.buffer.empty())
        reader.buffer.resize(FIRST_SIZE);
    else if (reader.end > reader.buffer.size() / 2)
        reader.buffer.resize(reader.buffer.size() * 2);
}

static line_found fill(line_reader &reader)
{
    make_room(reader);
    for (;;) {
        stop_wait wait = stop_signal_wait(reader.fd, 0);
        while (wait == STOP_TIMEOUT)
            wait = stop_signal_wait(reader.fd, reader.before_wait ? reader.before_wait() : -1);
        if (wait == STOP_ASKED)
            return LINE_STOPPED;
        if (wait == STOP_ERROR)
            return LINE_ERROR;
        const ssize_t got =
            read(reader.fd, reader.buffer.data() + reader.end, reader.buffer.size() - reader.end);
        if (got >= 0) {
            reader.end += static_cast<size_t>(got);
            reader.at_end = got == 0;
            return LINE_FOUND;
        }
        if (errno != EINTR && errno != EAGAIN)
            return LINE_ERROR;
    }
}

static line_found give(line_reader &reader, std::string_view &line, size_t line_end, size_t next)
{
    if (line_end - reader.begin > reader.longest)
        return LINE_TOO_LONG;
    line = {reader.buffer.data() + reader.begin, line_end - reader.begin};
    reader.bytes += next - reader.begin;
    reader.begin = next;
    reader.scanned = next;
    reader.number++;
    return LINE_FOUND;
}

line_found line_reader_next(line_reader &reader, std::string_view &line)
{
    for (;;) {
        if (reader.scanned < reader.end) {
            const char *const from = reader.buffer.data() + reader.scanned;
            const void *found = memchr(from, '\n', reader.end - reader.scanned);
            if (found != nullptr) {
                const auto at =
                    reader.scanned + static_cast<size_t>(static_cast<const char *>(found) - from);
                return give(reader, line, at, at + 1);
            }
            reader.scanned = reader.end;
        }
        if (reader.end - reader.begin > reader.longest)
            return LINE_TOO_LONG;
        if (reader.at_end) {
            if (reader.begin == reader.end)
                return LINE_END;
            reader.torn = true;
            return give(reader, line, reader.end, reader.end);
        }
        const line_found filled = fill(reader);
        if (filled != LINE_FOUND)
            return filled;
    }
}
