// Days are counted with years that begin in March, so that the leap day is the
// last one of its year.
#include "feed/stamp.h"

#include "fwutil/fwu_time.h"

static constexpr int64_t SECONDS_PER_DAY = 86400;
static constexpr int64_t DAYS_PER_400_YEARS = 146097;
static constexpr int64_t DAYS_0000_03_01_TO_1970 = 719468;
static constexpr int MICRO_DIGITS = 6;

struct civil {
    int64_t year = 0;
    int month = 0;
    int day = 0;
};

static int64_t days_from_civil(const civil &date)
{
    const int64_t year = date.month > 2 ? date.year : date.year - 1;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const int64_t year_of_era = year - era * 400;
    const int64_t month = (date.month + 9) % 12; // March is 0
    const int64_t day_of_year = (153 * month + 2) / 5 + date.day - 1;
    const int64_t day_of_era =
        year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    return era * DAYS_PER_400_YEARS + day_of_era - DAYS_0000_03_01_TO_1970;
}

static bool take_number(std::string_view &text, int digits, int &value)
{
    value = 0;
    if (text.size() < static_cast<size_t>(digits))
        return false;
    for (int i = 0; i < digits; i++) {
        const char c = text[static_cast<size_t>(i)];
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + (c - '0');
    }
    text.remove_prefix(static_cast<size_t>(digits));
    return true;
}

static bool take(std::string_view &text, char c)
{
    if (!text.starts_with(c))
        return false;
    text.remove_prefix(1);
    return true;
}

static bool take_date(std::string_view &text, int64_t &days)
{
    static const int month_days[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int year = 0;
    civil date;
    if (!take_number(text, 4, year) || !take(text, '-') || !take_number(text, 2, date.month) ||
        !take(text, '-') || !take_number(text, 2, date.day))
        return false;
    date.year = year;
    if (year < 1 || date.month < 1 || date.month > 12 || date.day < 1 ||
        date.day > month_days[date.month - 1])
        return false;
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    if (date.month == 2 && date.day == 29 && !leap)
        return false;
    days = days_from_civil(date);
    return true;
}

static bool take_fraction(std::string_view &text, int32_t &micros)
{
    int digits = 0;
    while (digits < MICRO_DIGITS && !text.empty() && text.front() >= '0' && text.front() <= '9') {
        micros = micros * 10 + (text.front() - '0');
        text.remove_prefix(1);
        digits++;
    }
    for (int i = digits; i < MICRO_DIGITS; i++)
        micros *= 10;
    return digits > 0;
}

// Takes "+HH[:MM[:SS]]" and the like up to the end of the text.
static bool take_offset(std::string_view &text, int64_t &offset)
{
    const bool west = take(text, '-');
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    if ((!west && !take(text, '+')) || !take_number(text, 2, hours))
        return false;
    if (take(text, ':') && !take_number(text, 2, minutes))
        return false;
    if (take(text, ':') && !take_number(text, 2, seconds))
        return false;
    if (hours > 23 || minutes > 59 || seconds > 59)
        return false;
    offset = hours * 3600 + minutes * 60 + seconds;
    if (west)
        offset = -offset;
    return true;
}

bool feed_stamp_parse(feed_stamp &stamp, std::string_view text)
{
    int64_t days = 0;
    int64_t offset = 0;
    int hours = 0;
    int minutes = 0;
    int seconds = 0;
    stamp = {};
    if (!take_date(text, days) || !take(text, ' ') || !take_number(text, 2, hours) ||
        !take(text, ':') || !take_number(text, 2, minutes) || !take(text, ':') ||
        !take_number(text, 2, seconds))
        return false;
    if (hours > 23 || minutes > 59 || seconds > 59)
        return false;
    if (take(text, '.') && !take_fraction(text, stamp.micros))
        return false;
    if (!text.empty()) {
        stamp.zoned = true;
        if (!take_offset(text, offset))
            return false;
    }
    stamp.seconds = days * SECONDS_PER_DAY + hours * 3600 + minutes * 60 + seconds - offset;
    return text.empty();
}

feed_stamp feed_stamp_of(int64_t time_us)
{
    return {.seconds = fwu_second_of(time_us), .micros = fwu_micros_of(time_us)};
}

bool feed_stamp_format(std::string &out, const feed_stamp &stamp, int decimals)
{
    char text[FWU_TIME_SIZE];
    if (!fwu_time_put(text, stamp.seconds, stamp.micros))
        return false;
    out.assign(text, sizeof text);
    const size_t keep = FWU_TIME_MICROS_AT + static_cast<size_t>(decimals);
    if (out.starts_with("0000") || out.find_first_not_of('0', keep) != std::string::npos)
        return false;
    out.resize(decimals > 0 ? keep : keep - 1);
    return true;
}
