// Records whose bytes follow from their number, so that whoever finds one knows which
// it is and that all of it is there; and what a checker needs, which goes by the
// documented formats alone and uses nothing of the code under test.
#ifndef TESTS_POWERCUT_NUMBERED_H
#define TESTS_POWERCUT_NUMBERED_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <vector>

constexpr size_t NUMBERED_HEAD = 12; // "#0000000042#"

// Printable text of at least 24 bytes, its letters as different as the numbers.
inline std::string numbered_text(uint32_t number, size_t length)
{
    char head[NUMBERED_HEAD + 1];
    (void)snprintf(head, sizeof head, "#%010u#", number);
    std::string text(head, NUMBERED_HEAD);
    uint32_t state = number * 2654435761U + 1;
    while (text.size() < length) {
        state = state * 1664525U + 1013904223U;
        text += static_cast<char>('A' + (state >> 24) % 26);
    }
    return text;
}

// The number of the text of that length that stands in bytes; 0 when there is none, or
// one that is not whole.
inline uint32_t number_in(std::string_view bytes, size_t length)
{
    const size_t at = bytes.find('#');
    if (at == std::string_view::npos || bytes.size() - at < length)
        return 0;
    const std::string_view text(bytes.data() + at, length);
    const uint32_t number =
        static_cast<uint32_t>(strtoul(std::string(text.substr(1, 10)).c_str(), nullptr, 10));
    return numbered_text(number, length) == text ? number : 0;
}

// What is wrong with a sequence that should be 1, 2, 3, ...; empty for nothing.
inline std::string gap_in(const std::vector<uint32_t> &numbers)
{
    for (size_t i = 0; i < numbers.size(); i++) {
        if (numbers[i] != i + 1)
            return "in place " + std::to_string(i + 1) + " stands " + std::to_string(numbers[i]);
    }
    return "";
}

// What a program that is cut off tells the test, in memory that both have.  What counts
// is what it had told before the power went: a sync that was under way may come back
// as done although the file system was stopped under it.
struct progress {
    std::atomic<uint32_t> made;         // the newest number written
    std::atomic<uint32_t> acknowledged; // the newest number said to be on the disk
    std::atomic<uint64_t> mark;         // that number, and above it where its record ends
    std::atomic<bool> rests;            // everything is done that was asked for
};

class shared_progress {
  public:
    shared_progress()
    {
        void *at = mmap(nullptr, sizeof(progress), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (at == MAP_FAILED)
            throw std::runtime_error("no shared memory");
        object_ = new (at) progress();
    }
    ~shared_progress()
    {
        munmap(object_, sizeof(progress));
    }
    shared_progress(const shared_progress &) = delete;
    shared_progress &operator=(const shared_progress &) = delete;
    progress *operator->() const
    {
        return object_;
    }
    progress &operator*() const
    {
        return *object_;
    }

  private:
    progress *object_;
};

#endif
