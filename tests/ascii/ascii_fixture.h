// Converting one image under a test's own item layout.
#ifndef TESTS_ASCII_ASCII_FIXTURE_H
#define TESTS_ASCII_ASCII_FIXTURE_H

#include "ascii/ascii_flags.h"
#include "ascii/put_ascii.h"
#include "driver/base/dsetinfo.h"
#include "tests/ascii/ascii_model.h"
#include "tests/support/captured.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

// A record buffer as a capture file has it: bufsize bytes and two to spare.
struct record_buffer {
    explicit record_buffer(int32_t size, const std::string &start = "")
        : bytes(static_cast<char *>(malloc(static_cast<size_t>(size) + RECBUF_SPARE))),
          length(static_cast<int32_t>(start.size())), bufsize(size)
    {
        memset(bytes, '_', static_cast<size_t>(size));
        memcpy(bytes, start.data(), start.size());
    }
    ~record_buffer()
    {
        free(bytes);
    }
    record_buffer(const record_buffer &) = delete;
    record_buffer &operator=(const record_buffer &) = delete;

    std::string text() const
    {
        return {bytes, static_cast<size_t>(length)};
    }

    char *bytes;
    int32_t length;
    int32_t bufsize;
};

struct conversion {
    int rc = 0;
    std::string err;
};

// Appends the image's text to the buffer.  The image is a block of exactly its
// length, so that a sanitizer sees a read past it.
inline conversion convert_into(record_buffer &buffer, uint32_t flags,
                               const std::vector<item> &items, const std::string &image)
{
    std::vector<dsetitem> descriptors;
    for (const item &i : items)
        descriptors.push_back({"ITEM", i.type, i.size, i.count, 0});
    std::vector<dsetitem *> pointers;
    for (dsetitem &d : descriptors)
        pointers.push_back(&d);
    const auto n = static_cast<int32_t>(items.size());
    const dsetinfo layout = {n, n, pointers.data()};

    const auto exact = std::make_unique<char[]>(image.size());
    if (!image.empty())
        memcpy(exact.get(), image.data(), image.size());
    conversion result;
    const captured printed = capture([&] {
        result.rc = put_ascii(flags, &buffer.bytes, &buffer.length, &buffer.bufsize, exact.get(),
                              static_cast<int32_t>(image.size()), &layout);
    });
    EXPECT_EQ("", printed.out);
    result.err = printed.err;
    return result;
}

#endif
