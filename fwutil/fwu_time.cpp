// Times as text and back.  Digits are put one by one: a time is written for each
// transaction that is read, and for each row of some tables.
#include "fwutil/fwu_time.h"

#include <algorithm>
#include <cstring>
#include <ctime>

constexpr int64_t YEAR_0 = -62167219200;
constexpr int64_t YEAR_9999_END = 253402300799;

static void put_digits(char *p, int value, size_t digits)
{
    for (size_t i = digits; i > 0; i--, value /= 10)
        p[i - 1] = static_cast<char>('0' + value % 10);
}

bool fwu_time_put(char *p, int64_t second, int32_t micros)
{
    if (second < YEAR_0 || second > YEAR_9999_END)
        return false;
    const time_t when = second;
    struct tm tm = {};
    (void)gmtime_r(&when, &tm); // in range
    memcpy(p, "0000-00-00 00:00:00.000000", FWU_TIME_SIZE);
    put_digits(p, tm.tm_year + 1900, 4);
    put_digits(p + 5, tm.tm_mon + 1, 2);
    put_digits(p + 8, tm.tm_mday, 2);
    put_digits(p + 11, tm.tm_hour, 2);
    put_digits(p + 14, tm.tm_min, 2);
    put_digits(p + 17, tm.tm_sec, 2);
    put_digits(p + FWU_TIME_MICROS_AT, micros, 6);
    return true;
}

static std::string text_of(int64_t time_us)
{
    std::string text(FWU_TIME_SIZE, ' ');
    (void)fwu_time_put(text.data(), std::clamp(fwu_second_of(time_us), YEAR_0, YEAR_9999_END),
                       fwu_micros_of(time_us)); // in range
    return text;
}

std::string fwu_time_text(int64_t time_us)
{
    return text_of(time_us) + " UTC";
}

std::string fwu_time_word(int64_t time_us)
{
    std::string text = text_of(time_us) + "Z";
    text[text.find(' ')] = 'T';
    return text;
}

static int get_digits(std::string_view text, size_t at, size_t digits)
{
    int number = 0;
    for (size_t i = at; i < at + digits; i++)
        number = number * 10 + (text[i] - '0');
    return number;
}

int64_t fwu_time_get(std::string_view text)
{
    struct tm tm = {};
    tm.tm_year = get_digits(text, 0, 4) - 1900;
    tm.tm_mon = get_digits(text, 5, 2) - 1;
    tm.tm_mday = get_digits(text, 8, 2);
    tm.tm_hour = get_digits(text, 11, 2);
    tm.tm_min = get_digits(text, 14, 2);
    tm.tm_sec = get_digits(text, 17, 2);
    return timegm(&tm) * FWU_US_PER_S + get_digits(text, FWU_TIME_MICROS_AT, 6);
}
