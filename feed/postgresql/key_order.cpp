// Each type has a function that brings a text of it into a form that is compared as it is;
// whatever the server would not write is refused, so that nothing is taken for what it is not.
#include "feed/postgresql/key_order.h"

#include "feed/postgresql/server.h"

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <limits>

static int order_of(std::strong_ordering ordering)
{
    return std::is_lt(ordering) ? -1 : std::is_gt(ordering) ? 1 : 0;
}

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

static bool is_hex(char c)
{
    return is_digit(c) || (c >= 'a' && c <= 'f');
}

// Texts of both values are read by one function, and what it gives is compared.
template <typename Form, bool (*read)(Form &, std::string_view)>
static bool compare_read(int &order, std::string_view a, std::string_view b)
{
    Form left{};
    Form right{};
    if (!read(left, a) || !read(right, b))
        return false;
    order = order_of(left <=> right);
    return true;
}

// Digits of a number by which its order is seen: without sign, zeros in front and at the end.
struct decimal_form {
    int rank = 0; // -2 -Infinity, -1 below zero, 0, 1 above zero, 2 Infinity, 3 NaN
    std::string_view whole;
    std::string_view fraction;

    std::strong_ordering operator<=>(const decimal_form &other) const
    {
        if (rank != other.rank || rank == 0)
            return rank <=> other.rank;
        const decimal_form &a = rank > 0 ? *this : other; // below zero, the longer one is less
        const decimal_form &b = rank > 0 ? other : *this;
        if (a.whole.size() != b.whole.size())
            return a.whole.size() <=> b.whole.size();
        return a.whole != b.whole ? a.whole <=> b.whole : a.fraction <=> b.fraction;
    }
};

static std::string_view take_digits(std::string_view &text)
{
    const auto end = std::find_if_not(text.begin(), text.end(), is_digit);
    const std::string_view digits = text.substr(0, static_cast<size_t>(end - text.begin()));
    text.remove_prefix(digits.size());
    return digits;
}

static bool take(std::string_view &text, std::string_view what)
{
    if (!text.starts_with(what))
        return false;
    text.remove_prefix(what.size());
    return true;
}

static bool read_decimal(decimal_form &form, std::string_view text)
{
    static constexpr struct {
        std::string_view text;
        int rank;
    } names[] = {{"-Infinity", -2}, {"Infinity", 2}, {"NaN", 3}};
    for (const auto &name : names) {
        form.rank = name.rank;
        if (text == name.text)
            return true;
    }
    const bool below = take(text, "-");
    form.whole = take_digits(text);
    const bool point = !form.whole.empty() && take(text, ".");
    if (point)
        form.fraction = take_digits(text);
    if (form.whole.empty() || point == form.fraction.empty() || !text.empty())
        return false;
    form.whole.remove_prefix(std::min(form.whole.find_first_not_of('0'), form.whole.size()));
    form.fraction = form.fraction.substr(0, form.fraction.find_last_not_of('0') + 1);
    const bool zero = form.whole.empty() && form.fraction.empty();
    form.rank = zero ? 0 : below ? -1 : 1;
    return true;
}

template <typename Number> static bool read_number(Number &number, std::string_view text)
{
    return pgs_number(number, text);
}

static bool read_truth(bool &truth, std::string_view text)
{
    truth = text == "t";
    return truth || text == "f";
}

static bool read_text(std::string_view &form, std::string_view text)
{
    form = text;
    return true;
}

// Blanks at its end are filling.
static bool read_filled(std::string_view &form, std::string_view text)
{
    form = text.substr(0, text.find_last_not_of(' ') + 1);
    return true;
}

// The order of digits is that of the bytes.
static bool read_bytes(std::string_view &form, std::string_view text)
{
    form = text;
    return take(form, "\\x") && form.size() % 2 == 0 &&
           std::all_of(form.begin(), form.end(), is_hex);
}

static bool read_uuid(std::string_view &form, std::string_view text)
{
    static constexpr std::string_view pattern = "00000000-0000-0000-0000-000000000000";
    form = text;
    return std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(),
                      [](char c, char wanted) { return wanted == '-' ? c == '-' : is_hex(c); });
}

// Year (1 BC is 0), month, day, hour, minute, second, microsecond.
using time_form = std::array<int64_t, 7>;

static bool take_part(std::string_view &text, size_t least, size_t most, int64_t &part)
{
    const std::string_view digits = take_digits(text);
    return digits.size() >= least && digits.size() <= most && pgs_number(part, digits);
}

static bool take_date(std::string_view &text, time_form &form)
{
    return take_part(text, 4, 7, form[0]) && take(text, "-") && take_part(text, 2, 2, form[1]) &&
           take(text, "-") && take_part(text, 2, 2, form[2]);
}

static bool take_time(std::string_view &text, time_form &form)
{
    if (!take(text, " ") || !take_part(text, 2, 2, form[3]) || !take(text, ":") ||
        !take_part(text, 2, 2, form[4]) || !take(text, ":") || !take_part(text, 2, 2, form[5]))
        return false;
    if (!take(text, "."))
        return true;
    size_t digits = text.size();
    if (!take_part(text, 1, 6, form[6]))
        return false;
    for (digits -= text.size(); digits < 6; digits++)
        form[6] *= 10;
    return true;
}

// As the sessions have it: ISO, with times in UTC.
template <bool has_time, bool has_zone>
static bool read_time(time_form &form, std::string_view text)
{
    form = {};
    if (text == "infinity" || text == "-infinity") {
        form[0] = text.front() == '-' ? std::numeric_limits<int64_t>::min()
                                      : std::numeric_limits<int64_t>::max();
        return true;
    }
    if (!take_date(text, form) || (has_time && !take_time(text, form)) ||
        (has_zone && !take(text, "+00")))
        return false;
    if (take(text, " BC"))
        form[0] = 1 - form[0];
    return text.empty();
}

struct type_row {
    uint32_t oid;
    bool by_bytes; // only in columns whose texts are
    bool (*compare)(int &order, std::string_view a, std::string_view b);
};

static constexpr type_row types[] = {
    {16, false, compare_read<bool, read_truth>},                     // boolean
    {17, false, compare_read<std::string_view, read_bytes>},         // bytea
    {19, true, compare_read<std::string_view, read_text>},           // name
    {20, false, compare_read<int64_t, read_number<int64_t>>},        // bigint
    {21, false, compare_read<int16_t, read_number<int16_t>>},        // smallint
    {23, false, compare_read<int32_t, read_number<int32_t>>},        // integer
    {25, true, compare_read<std::string_view, read_text>},           // text
    {26, false, compare_read<uint32_t, read_number<uint32_t>>},      // oid
    {1042, true, compare_read<std::string_view, read_filled>},       // character
    {1043, true, compare_read<std::string_view, read_text>},         // character varying
    {1082, false, compare_read<time_form, read_time<false, false>>}, // date
    {1114, false, compare_read<time_form, read_time<true, false>>},  // timestamp
    {1184, false, compare_read<time_form, read_time<true, true>>},   // timestamp with time zone
    {1700, false, compare_read<decimal_form, read_decimal>},         // numeric
    {2950, false, compare_read<std::string_view, read_uuid>},        // uuid
};

static const type_row *find_type(uint32_t type)
{
    const auto *const found = std::find_if(std::begin(types), std::end(types),
                                           [&](const type_row &row) { return row.oid == type; });
    return found == std::end(types) ? nullptr : found;
}

bool pgy_comparable(uint32_t type, bool by_bytes)
{
    const type_row *const row = find_type(type);
    return row != nullptr && (by_bytes || !row->by_bytes);
}

bool pgy_compare(int &order, uint32_t type, std::string_view a, std::string_view b)
{
    const type_row *const row = find_type(type);
    return row != nullptr && row->compare(order, a, b);
}
