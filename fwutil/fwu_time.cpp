// Times as text and back.  Digits are put one by one: a time is written for each
// transaction that is read, and for each row of some tables.  The language's calendar is
// taken, not the system's, whose seconds end in 2038 where words have 32 bits.
#include "fwutil/fwu_time.h"

#include <algorithm>
#include <chrono>
#include <cstring>

constexpr int64_t DAY = 86400;
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
    using namespace std::chrono;
    const int64_t day = second / DAY - (second % DAY < 0 ? 1 : 0);
    const year_month_day date{sys_days{days{static_cast<int>(day)}}};
    const auto rest = static_cast<int>(second - day * DAY);
    memcpy(p, "0000-00-00 00:00:00.000000", FWU_TIME_SIZE);
    put_digits(p, static_cast<int>(date.year()), 4);
    put_digits(p + 5, static_cast<int>(static_cast<unsigned>(date.month())), 2);
    put_digits(p + 8, static_cast<int>(static_cast<unsigned>(date.day())), 2);
    put_digits(p + 11, rest / 3600, 2);
    put_digits(p + 14, rest / 60 % 60, 2);
    put_digits(p + 17, rest % 60, 2);
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
    using namespace std::chrono;
    const year_month month =
        year{get_digits(text, 0, 4)} / January + months{get_digits(text, 5, 2) - 1};
    const int64_t days =
        (sys_days{month / 1}.time_since_epoch()).count() + get_digits(text, 8, 2) - 1;
    const int64_t second = days * DAY + get_digits(text, 11, 2) * 3600 +
                           get_digits(text, 14, 2) * 60 + get_digits(text, 17, 2);
    return second * FWU_US_PER_S + get_digits(text, FWU_TIME_MICROS_AT, 6);
}
