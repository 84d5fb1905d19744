// The inverse of ascii/: each form of column has its function here.
//
// What a packed or zoned column shows behind "*" is no number, and stays none: where bytes were
// replaced by "~", that is neither a digit nor a sign.
#include "records/column.h"

#include "ascii/ascii_width.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <limits>
#include <string_view>

// The text behind the blanks in front.
static std::string_view right_part(const rec_column &column, const char *text)
{
    std::string_view all(text, column.width);
    all.remove_prefix(std::min(all.find_first_not_of(' '), all.size()));
    return all;
}

template <typename Number>
static void store(const rec_column &column, unsigned char *element, Number value)
{
    memcpy(element, &value, sizeof value);
    if (column.big_endian != (std::endian::native == std::endian::big))
        std::reverse(element, element + sizeof value);
}

template <typename Number>
static bool put_number(const rec_column &column, unsigned char *element, const char *text)
{
    const std::string_view digits = right_part(column, text);
    const char *const end = digits.data() + digits.size();
    Number value = 0;
    const auto [at, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc() || at != end)
        return false;
    store(column, element, value);
    return true;
}

static bool put_text(const rec_column &column, unsigned char *element, const char *text)
{
    memcpy(element, text, column.width);
    return true;
}

// The sign and the digits of a packed or zoned column.
struct decimal {
    char sign = ' '; // as the column without -bwfmt has it
    std::string_view digits;
};

static bool take_decimal(const rec_column &column, decimal &number, const char *text)
{
    std::string_view all(text, column.width);
    if (column.bwfmt) {
        all = right_part(column, text);
        number.sign = all.starts_with('-') ? '-' : ' ';
        all.remove_prefix(number.sign == '-' ? 1 : 0);
    } else {
        number.sign = all.front();
        all.remove_prefix(1);
    }
    number.digits = all;
    return std::string_view("+- ").find(number.sign) != std::string_view::npos && !all.empty() &&
           all.size() < column.width && all.find_first_not_of("0123456789") == all.npos;
}

// Bytes that are no number, behind "*".
static bool take_raw(const rec_column &column, unsigned char *element, const char *text)
{
    const std::string_view all(text, column.width);
    const size_t before = column.width - column.size;
    if (all.front() != '*' || all.substr(1, before - 1).find_first_not_of(' ') != all.npos)
        return false;
    memcpy(element, text + before, column.size);
    return true;
}

static bool put_packed(const rec_column &column, unsigned char *element, const char *text)
{
    decimal number;
    if (!take_decimal(column, number, text))
        return take_raw(column, element, text);
    constexpr unsigned plus = 0xC;
    constexpr unsigned minus = 0xD;
    constexpr unsigned none = 0xF;
    memset(element, 0, column.size);
    element[column.size - 1] = static_cast<unsigned char>(number.sign == '+'   ? plus
                                                          : number.sign == '-' ? minus
                                                                               : none);
    size_t half = 2 * column.size - 1; // of the digit taken last, from the front
    for (size_t i = number.digits.size(); i-- > 0;) {
        half--;
        const auto digit = static_cast<unsigned>(number.digits[i] - '0');
        element[half / 2] |= static_cast<unsigned char>(half % 2 == 0 ? digit << 4 : digit);
    }
    return true;
}

static bool put_zoned(const rec_column &column, unsigned char *element, const char *text)
{
    decimal number;
    if (!take_decimal(column, number, text))
        return take_raw(column, element, text);
    static constexpr char PLUS[] = "{ABCDEFGHI";
    static constexpr char MINUS[] = "}JKLMNOPQR";
    const size_t zeros = column.size - number.digits.size();
    memset(element, '0', zeros);
    memcpy(element + zeros, number.digits.data(), number.digits.size());
    unsigned char &last = element[column.size - 1];
    if (number.sign != ' ')
        last = static_cast<unsigned char>((number.sign == '-' ? MINUS : PLUS)[last - '0']);
    return true;
}

struct letter_row {
    std::string_view letters;
    int32_t size; // of the element; 0: any
    bool (*put)(const rec_column &column, unsigned char *element, const char *text);
    const char *fits;
    int digits; // that its text has at most; 0: all
};

static_assert(std::numeric_limits<float>::is_iec559 && std::numeric_limits<double>::is_iec559);
static constexpr char FLOATING[] = "a floating-point number";
static constexpr char SIGNED[] = "a signed number";
static constexpr char UNSIGNED[] = "an unsigned number";

static constexpr letter_row LETTERS[] = {
    {"ER", 4, put_number<float>, FLOATING, 7},
    {"ER", 8, put_number<double>, FLOATING, 12},
    {"IJ", 2, put_number<int16_t>, SIGNED, 0},
    {"IJ", 4, put_number<int32_t>, SIGNED, 0},
    {"IJ", 8, put_number<int64_t>, SIGNED, 0},
    {"K", 2, put_number<uint16_t>, UNSIGNED, 0},
    {"K", 4, put_number<uint32_t>, UNSIGNED, 0},
    {"K", 8, put_number<uint64_t>, UNSIGNED, 0},
    {"P", 0, put_packed, "a packed decimal number", 0},
    {"Z", 0, put_zoned, "a zoned decimal number", 0},
    {"XU", 0, put_text, "a text", 0},
};

static const letter_row *find_row(const fwu_item &item)
{
    for (const letter_row &row : LETTERS)
        if (row.letters.find(static_cast<char>(item.type)) != row.letters.npos &&
            (row.size == 0 || row.size == item.size))
            return &row;
    return nullptr;
}

bool rec_column_make(rec_column &column, const fwu_item &item, const rec_form &form)
{
    const int64_t width = ascii_column_width(static_cast<uint32_t>(item.type), item.size);
    const letter_row *row = find_row(item);
    if (row == nullptr || width == ASCII_NO_COLUMN)
        return false;
    column = {.width = static_cast<size_t>(width),
              .size = static_cast<size_t>(item.size),
              .big_endian = (std::endian::native == std::endian::big) != form.asciirev,
              .bwfmt = form.bwfmt,
              .put = row->put,
              .fits = row->fits};
    return true;
}

int rec_column_digits(const fwu_item &item)
{
    const letter_row *row = find_row(item);
    return row == nullptr ? 0 : row->digits;
}
