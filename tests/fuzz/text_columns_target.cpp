// Record images as text columns, for layouts and images that no database has: against a second,
// slow conversion; and what reads columns back makes an image that gives the same columns.
//
// An input is a byte of flags, the length of the record buffer, the number of items, three bytes
// for each of them, and the image.
#include "ascii/ascii_width.h"
#include "ascii/put_ascii.h"
#include "driver/base/dsetinfo.h"
#include "records/column.h"
#include "tests/ascii/ascii_model.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"

#include <cstdlib>
#include <cstring>
#include <memory>

static constexpr char letters[] = "ERIJKPZXU?";
static constexpr int most_items = 12;

struct converted {
    fuzz_said said;
    std::string text;
};

static converted convert(uint32_t flags, const std::vector<item> &items, const std::string &image,
                         int32_t room)
{
    std::vector<dsetitem> descriptors;
    for (const item &one : items)
        descriptors.push_back({"ITEM", one.type, one.size, one.count, 0});
    std::vector<dsetitem *> pointers;
    for (dsetitem &one : descriptors)
        pointers.push_back(&one);
    const auto n = static_cast<int32_t>(items.size());
    const dsetinfo layout = {n, n, pointers.data()};
    // Memory of its own length, so that a sanitizer sees a read past it.
    const std::unique_ptr<char[]> exact(new char[image.size()]);
    image.copy(exact.get(), image.size());
    constexpr int32_t header = 2;
    int32_t bufsize = room + header;
    int32_t length = header;
    auto *buffer = static_cast<char *>(malloc(static_cast<size_t>(bufsize) + RECBUF_SPARE));
    memcpy(buffer, "HD", header);
    converted made;
    made.said = fuzz_listen([&] {
        return put_ascii(flags, &buffer, &length, &bufsize, exact.get(),
                         static_cast<int32_t>(image.size()), &layout);
    });
    fuzz_expect(length >= header && length <= bufsize, "the text's length");
    memset(buffer + length, '\n', RECBUF_SPARE); // what the file layer adds has a place
    fuzz_expect(memcmp(buffer, "HD", header) == 0, "the header has changed");
    made.text.assign(buffer + header, static_cast<size_t>(length - header));
    free(buffer);
    return made;
}

// The image of a text; empty: there is none.
static std::string image_of(uint32_t flags, const std::vector<item> &items, const std::string &text)
{
    const rec_form form = {.text = true,
                           .asciirev = (flags & ASCII_REVERSE) != 0,
                           .dirty = (flags & ASCII_DIRTY) != 0,
                           .bwfmt = (flags & ASCII_BWFMT) != 0};
    std::string image;
    size_t at = 0;
    for (const item &one : items) {
        rec_column column;
        const fwu_item described = {"ITEM", one.type, one.size, one.count, 0};
        if (!rec_column_make(column, described, form))
            return "";
        for (int i = 0; i < one.count; i++, at += column.width) {
            if (text.size() < at + column.width)
                return "";
            std::vector<unsigned char> element(column.size);
            const std::string part = text.substr(at, column.width);
            const std::unique_ptr<char[]> exact(new char[part.size()]);
            part.copy(exact.get(), part.size());
            if (!rec_column_put(column, element.data(), exact.get()))
                return "";
            image.append(reinterpret_cast<const char *>(element.data()), element.size());
        }
    }
    return image;
}

// A NaN is a text without its bits, and a value of single precision can be shown as infinity.
static bool has_floats(const std::vector<item> &items)
{
    return std::any_of(items.begin(), items.end(),
                       [](const item &one) { return one.type == 'E' || one.type == 'R'; });
}

static void run(std::string_view input)
{
    fuzz_bytes in = {input};
    const auto flags = static_cast<uint32_t>(ASCII_ON | (in.byte() & 7U) << 1);
    const int32_t room = in.byte();
    std::vector<item> items;
    for (int n = in.byte() % (most_items + 1); n > 0; n--) {
        item one = {letters[size_t{in.byte()} % (sizeof letters - 1)], 0, 0};
        one.size = in.byte() % 70;
        one.count = in.byte() % 9;
        items.push_back(one);
    }
    const std::string image(in.rest);
    const bool fits = std::all_of(items.begin(), items.end(), [](const item &one) {
        return one.size > 0; // as the library hands out, and the spare has room for any column
    });
    if (!fits)
        return;
    const ascii_model expected = expected_text(flags, items, image);
    const converted made = convert(flags, items, image, room);
    fuzz_equal(made.said.status, expected.rc, "the result");
    fuzz_equal(made.said.err, expected.err, "what is said");
    if (made.text != expected.text)
        fuzz_failed("the text:\n" + made.text + "\n" + expected.text);
    const converted again = convert(flags, items, image, 1000);
    fuzz_equal(again.text, made.text, "in a larger buffer");

    if (made.said.status != 0)
        return;
    const std::string read = image_of(flags, items, made.text);
    if (read.empty() || has_floats(items))
        return;
    fuzz_equal(read.size(), image.size(), "the length of an image read back");
    const converted back = convert(flags, items, read, room);
    fuzz_equal(back.text, made.text, "read back, and shown again");
    // A sign is lost where it is not shown.
    const bool exact = std::none_of(items.begin(), items.end(), [](const item &one) {
        return one.type == 'P' || one.type == 'Z';
    });
    if ((flags & ASCII_DIRTY) != 0 && exact)
        fuzz_expect(read == image, "an image read back is another one");
}

static std::vector<std::string> seeds()
{
    const auto made = [](int flags, const std::vector<std::array<int, 3>> &items,
                         const std::string &image) {
        std::string input = {static_cast<char>(flags), 10, static_cast<char>(items.size())};
        for (const auto &one : items)
            for (const int value : one)
                input += static_cast<char>(value);
        return input + image;
    };
    using namespace std::string_literals;
    return {made(0, {{{2, 4, 1}}, {{5, 3, 2}}, {{7, 6, 1}}},
                 "\x11\0\0\0\x01\x23\x4C\x12\x34\x5D"s + "b\tck \xFF"),
            made(4, {{{0, 8, 1}}, {{6, 3, 2}}, {{4, 2, 3}}},
                 "\0\0\0\0\0\0\xF8\x3F"s + "12K00{" + "\x01\0\xFF\xFF\0\x80"s),
            made(7, {{{2, 8, 2}}, {{5, 1, 1}}}, std::string(16, '\x80') + "\x0C"),
            made(1, {{{3, 3, 1}}, {{9, 2, 1}}}, "abcde"),
            made(2, {}, ""),
            made(0, {{{7, 5, 1}}}, "abc")};
}

constinit const fuzz_target fuzz_text_columns = {
    .name = "text_columns", .longest = 700, .run = run, .seeds = seeds};
