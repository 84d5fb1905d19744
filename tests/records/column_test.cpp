// Every column that ascii/ makes becomes the bytes that it was made of again, or the number that
// they stand for.
#include "records/column.h"

#include "ascii/ascii_dec.h"
#include "ascii/ascii_flags.h"
#include "ascii/ascii_num.h"
#include "ascii/ascii_width.h"
#include "changes/value.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>

struct text_form {
    uint32_t flags;
    rec_form form;
};

static const text_form FORMS[] = {
    {ASCII_ON, {.text = true}},
    {ASCII_ON | ASCII_BWFMT, {.text = true, .bwfmt = true}},
    {ASCII_ON | ASCII_DIRTY, {.text = true, .dirty = true}},
    {ASCII_ON | ASCII_REVERSE, {.text = true, .asciirev = true}},
};

static const unsigned char *at(const std::string &bytes)
{
    return reinterpret_cast<const unsigned char *>(bytes.data());
}

// What is read back from a column; "?" when it is refused.
static std::string read_back(const fwu_item &item, const rec_form &form, const std::string &text)
{
    rec_column column;
    EXPECT_TRUE(rec_column_make(column, item, form));
    EXPECT_EQ(column.width, text.size());
    std::string bytes(static_cast<size_t>(item.size), '_');
    return rec_column_put(column, reinterpret_cast<unsigned char *>(bytes.data()), text.data())
               ? bytes
               : "?";
}

static std::string decimal_text(const fwu_item &item, uint32_t flags, const std::string &bytes)
{
    const int64_t width = ascii_column_width(static_cast<uint32_t>(item.type), item.size);
    std::string text(static_cast<size_t>(width), '_');
    const auto put = item.type == 'P' ? put_ascii_p : put_ascii_z;
    put(flags, text.data(), width, at(bytes), item.size);
    return text;
}

// The kind and the digits of an element.
static std::string value_of(const fwu_item &item, const std::string &bytes)
{
    std::string work;
    std::string_view text;
    const change_value kind = change_value_get(text, work, item, false, FWU_LATIN1, at(bytes));
    return std::to_string(kind) + ":" + std::string(text);
}

static std::string cleaned(std::string bytes)
{
    for (char &c : bytes)
        c = c < ' ' || c > '~' ? '~' : c;
    return bytes;
}

// A negative zero has no sign with -bwfmt.
static std::string unsigned_zero(std::string value)
{
    return value.find_first_of("123456789", 2) == value.npos && value.substr(2, 1) == "-"
               ? value.erase(2, 1)
               : value;
}

static void expect_inverted(const fwu_item &item, const text_form &form, const std::string &bytes)
{
    const std::string got = read_back(item, form.form, decimal_text(item, form.flags, bytes));
    const std::string value = value_of(item, bytes);
    const bool number = value.starts_with(std::to_string(CHANGE_NUMBER));
    if (number && form.form.bwfmt) {
        ASSERT_EQ(value_of(item, got), unsigned_zero(value)) << testing::PrintToString(bytes);
        return;
    }
    ASSERT_EQ(got, number || form.form.dirty ? bytes : cleaned(bytes));
    ASSERT_TRUE(number || value_of(item, got).starts_with(std::to_string(CHANGE_BYTES)));
}

TEST(RecColumn, PackedOfAllBytes)
{
    for (const text_form &form : FORMS) {
        for (unsigned a = 0; a < 256; a++)
            expect_inverted({"P", 'P', 1, 1, 0}, form, {static_cast<char>(a)});
        for (unsigned n = 0; n < 65536; n++)
            expect_inverted({"P", 'P', 2, 1, 1}, form,
                            {static_cast<char>(n >> 8), static_cast<char>(n)});
    }
}

TEST(RecColumn, ZonedOfAllBytes)
{
    for (const text_form &form : FORMS) {
        for (unsigned a = 0; a < 256; a++)
            expect_inverted({"Z", 'Z', 1, 1, 0}, form, {static_cast<char>(a)});
        for (unsigned n = 0; n < 65536; n++)
            expect_inverted({"Z", 'Z', 2, 1, 2}, form,
                            {static_cast<char>(n >> 8), static_cast<char>(n)});
    }
}

TEST(RecColumn, DecimalsOfEverySize)
{
    std::mt19937 random(17);
    for (int32_t size = 1; size <= FWU_PACKED_SIZE_MAX; size++) {
        for (int i = 0; i < 200; i++) {
            const text_form &form = FORMS[random() % std::size(FORMS)];
            std::string packed;
            std::string zoned;
            const size_t zeros = random() % (2 * static_cast<size_t>(size));
            for (size_t k = 0; k < static_cast<size_t>(size); k++) {
                const auto digit = [&](size_t place) {
                    return place < zeros ? 0U : static_cast<unsigned>(random() % 10);
                };
                packed += static_cast<char>(digit(2 * k) << 4 | digit(2 * k + 1));
                zoned += static_cast<char>('0' + digit(2 * k));
            }
            packed.back() =
                static_cast<char>((packed.back() & 0xF0) | "\x0C\x0D\x0F"[random() % 3]);
            zoned.back() = "{ABCDEFGHI}JKLMNOPQR0123456789"[random() % 30];
            expect_inverted({"P", 'P', size, 1, 0}, form, packed);
            expect_inverted({"Z", 'Z', size, 1, 0}, form, zoned);
        }
    }
}

using put_number = void (*)(uint32_t, char *, int32_t, const unsigned char *);

static std::string number_text(const fwu_item &item, put_number put, uint32_t flags,
                               const std::string &bytes)
{
    const int64_t width = ascii_column_width(static_cast<uint32_t>(item.type), item.size);
    std::string text(static_cast<size_t>(width), '_');
    put(flags, text.data(), static_cast<int32_t>(width), at(bytes));
    return text;
}

template <typename Number>
static void expect_numbers(char type, put_number put, std::initializer_list<Number> more)
{
    const fwu_item item = {"N", type, sizeof(Number), 1, 0};
    using limits = std::numeric_limits<Number>;
    std::vector<Number> numbers = {
        0, 1, 7, 30000, limits::max(), limits::lowest(), static_cast<Number>(limits::max() / 3)};
    numbers.insert(numbers.end(), more);
    for (const text_form &form : FORMS) {
        for (const Number number : numbers) {
            std::string bytes(sizeof number, '\0');
            memcpy(bytes.data(), &number, sizeof number);
            EXPECT_EQ(read_back(item, form.form, number_text(item, put, form.flags, bytes)), bytes)
                << type << " " << +number;
        }
    }
}

TEST(RecColumn, Integers)
{
    expect_numbers<int16_t>('I', put_ascii_i1, {-1, 255, 256});
    expect_numbers<int32_t>('J', put_ascii_i2, {-1, 65536, -1000000});
    expect_numbers<int64_t>('I', put_ascii_i4, {-1, 1LL << 40});
    expect_numbers<uint16_t>('K', put_ascii_k1, {32768});
    expect_numbers<uint32_t>('K', put_ascii_k2, {2147483648U});
    expect_numbers<uint64_t>('K', put_ascii_k4, {1ULL << 63});
}

TEST(RecColumn, FloatsThatTheirDigitsHold)
{
    const rec_form form = {.text = true};
    for (const float number :
         {0.0F, -0.0F, 1.0F, 0.5F, -12.25F, 1e-20F, 3e30F, std::numeric_limits<float>::infinity(),
          -std::numeric_limits<float>::infinity()}) {
        std::string bytes(sizeof number, '\0');
        memcpy(bytes.data(), &number, sizeof number);
        const fwu_item item = {"E", 'E', 4, 1, 0};
        EXPECT_EQ(read_back(item, form, number_text(item, put_ascii_e2, ASCII_ON, bytes)), bytes);
    }
    for (const double number : {0.0, 0.1, 123456.789012, -1e300, 5e-324, 1e-300}) {
        std::string bytes(sizeof number, '\0');
        memcpy(bytes.data(), &number, sizeof number);
        const fwu_item item = {"R", 'R', 8, 1, 0};
        EXPECT_EQ(read_back(item, form, number_text(item, put_ascii_e4, ASCII_ON, bytes)), bytes);
    }
    const double nan = std::numeric_limits<double>::quiet_NaN();
    std::string bytes(sizeof nan, '\0');
    memcpy(bytes.data(), &nan, sizeof nan);
    const fwu_item item = {"R", 'R', 8, 1, 0};
    bytes = read_back(item, form, number_text(item, put_ascii_e4, ASCII_ON, bytes));
    double got = 0;
    memcpy(&got, bytes.data(), sizeof got);
    EXPECT_TRUE(std::isnan(got));
}

TEST(RecColumn, RefusesWhatIsNone)
{
    const rec_form plain = {.text = true};
    const rec_form bwfmt = {.text = true, .bwfmt = true};
    const struct {
        fwu_item item;
        rec_form form;
        const char *text;
    } rows[] = {
        {{"I", 'I', 2, 1, 0}, plain, "              "},
        {{"I", 'I', 2, 1, 0}, plain, "         32768"},
        {{"I", 'I', 2, 1, 0}, plain, "            1 "},
        {{"I", 'I', 2, 1, 0}, plain, "           +12"},
        {{"K", 'K', 2, 1, 0}, plain, "             -1"},
        {{"E", 'E', 4, 1, 0}, plain, "           1.5.1"},
        {{"P", 'P', 2, 1, 0}, plain, "  12"},
        {{"P", 'P', 2, 1, 0}, plain, "/123"},
        {{"P", 'P', 2, 1, 0}, plain, "+12a"},
        {{"P", 'P', 2, 1, 0}, plain, "*xab"},
        {{"P", 'P', 2, 1, 0}, bwfmt, "    "},
        {{"P", 'P', 2, 1, 0}, bwfmt, "   -"},
        {{"P", 'P', 2, 1, 0}, bwfmt, "+123"},
        {{"P", 'P', 2, 1, 0}, bwfmt, "1234"},
        {{"Z", 'Z', 2, 1, 0}, plain, "+1 "},
        {{"Z", 'Z', 2, 1, 0}, bwfmt, "--1"},
    };
    for (const auto &row : rows) {
        std::string text = row.text;
        text.resize(static_cast<size_t>(
                        ascii_column_width(static_cast<uint32_t>(row.item.type), row.item.size)),
                    '1');
        EXPECT_EQ(read_back(row.item, row.form, text), "?") << row.text;
    }
    rec_column column;
    EXPECT_FALSE(rec_column_make(column, {"I", 'I', 3, 1, 0}, plain));
    EXPECT_FALSE(rec_column_make(column, {"Q", 'Q', 3, 1, 0}, plain));
}
