// The fuzz targets: each hands bytes that nobody wrote to one reader of the system, and looks
// whether what comes of them agrees with itself.
//
// A target is a row in a file of its own.  The row makes a fuzzer of clang's libFuzzer
// (fuzz_main.cpp), and one case of the ordinary tests, which play what fuzzers have found
// (corpus_test.cpp).
#ifndef TESTS_FUZZ_TARGET_H
#define TESTS_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct fuzz_target {
    const char *name;
    size_t longest;                                // bytes of an input
    void (*run)(std::string_view input);           // fuzz_failed when something does not agree
    std::vector<std::string> (*seeds)();           // inputs that the system itself would write
    std::vector<std::string> (*words)() = nullptr; // that inputs are made of
};

extern const fuzz_target fuzz_capture_records;
extern const fuzz_target fuzz_configuration;
extern const fuzz_target fuzz_forward_log;
extern const fuzz_target fuzz_json_lines;
extern const fuzz_target fuzz_message_file;
extern const fuzz_target fuzz_options;
extern const fuzz_target fuzz_patterns;
extern const fuzz_target fuzz_replication;
extern const fuzz_target fuzz_state_files;
extern const fuzz_target fuzz_status_file;
extern const fuzz_target fuzz_text_columns;

// All of them, by name.
std::span<const fuzz_target *const> fuzz_targets();

// Tells what does not agree, on the standard error that the process began with, and ends it.
[[noreturn]] void fuzz_failed(const std::string &what);

inline void fuzz_expect(bool agrees, const char *what)
{
    if (!agrees)
        fuzz_failed(what);
}

// The same with both sides of what should be equal.
template <typename A, typename B> void fuzz_equal(const A &a, const B &b, const char *what)
{
    if (a == b)
        return;
    if constexpr (requires { std::string(a) + std::string(b); })
        fuzz_failed(std::string(what) + ":\n" + std::string(a) + "\n---\n" + std::string(b));
    else if constexpr (requires { std::to_string(a) + std::to_string(b); })
        fuzz_failed(std::string(what) + ": " + std::to_string(a) + ", " + std::to_string(b));
    else
        fuzz_failed(what);
}

// An input taken apart from its front; behind its end there are zeros.
struct fuzz_bytes {
    std::string_view rest;

    uint8_t byte()
    {
        if (rest.empty())
            return 0;
        const auto value = static_cast<uint8_t>(rest.front());
        rest.remove_prefix(1);
        return value;
    }
    // Most significant byte first.
    uint16_t word()
    {
        const unsigned high = byte();
        return static_cast<uint16_t>(high << 8 | byte());
    }
    std::string_view text(size_t length)
    {
        const std::string_view taken = rest.substr(0, length);
        rest.remove_prefix(taken.size());
        return taken;
    }
};

// The bytes of a number, most significant first.
inline std::string fuzz_number(uint64_t value, size_t bytes)
{
    std::string text(bytes, '\0');
    for (size_t i = bytes; i > 0; i--, value >>= 8)
        text[i - 1] = static_cast<char>(value & 0xFF);
    return text;
}

#endif
