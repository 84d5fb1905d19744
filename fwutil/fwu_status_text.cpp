// Encoding and checking the text of a status file.
#include "fwutil/fwu_status_text.h"

#include "fwutil/fwu_crc32c.h"

#include <climits>
#include <cstring>
#include <ctime>
#include <string_view>

// fwutil status 1
// log /var/lib/log
// 0 position 0001-00000025.0000000339 time 2026-11-21 03:33:52.123456 UTC crc 1a2b3c4d
// 1 position 0001-00000025.0000000340 time 2026-11-21 03:33:52.123456 UTC crc 5e6f7a8b
static constexpr std::string_view FIRST_LINE = "fwutil status 1\n";
static constexpr std::string_view LOG_WORD = "log ";
static constexpr std::string_view POSITION_WORD = " position ";
static constexpr std::string_view TIME_WORD = " time ";
static constexpr std::string_view CRC_WORD = " crc ";
static constexpr std::string_view NO_POSITION = "none                    ";
static constexpr std::string_view NO_TIME = "none                          ";
static constexpr std::string_view POSITION_FORM = "0001-00000025.0000000340";
static constexpr std::string_view TIME_FORM = "2026-11-21 03:33:52.123456 UTC";
static constexpr size_t CRC_SIZE = 8;
static_assert(NO_POSITION.size() == POSITION_FORM.size() && NO_TIME.size() == TIME_FORM.size());

// Where the parts of a line stand.
static constexpr size_t POSITION_AT = 1 + POSITION_WORD.size();
static constexpr size_t TIME_WORD_AT = POSITION_AT + POSITION_FORM.size();
static constexpr size_t TIME_AT = TIME_WORD_AT + TIME_WORD.size();
static constexpr size_t CRC_WORD_AT = TIME_AT + TIME_FORM.size();
static constexpr size_t CRC_AT = CRC_WORD_AT + CRC_WORD.size();
static_assert(CRC_AT + CRC_SIZE + 1 == FWU_STATUS_LINE_SIZE);

// Where the parts of a position and of a time stand.
static constexpr size_t SEQUENCE_AT = 5;
static constexpr size_t TAG_AT = 14;
static constexpr size_t TAG_DIGITS = 10;
static constexpr size_t MICROSECONDS_AT = 20;

constexpr int64_t US_PER_S = 1000000;

static void put_digits(char *p, uint64_t value, size_t digits)
{
    for (size_t i = digits; i > 0; i--, value /= 10)
        p[i - 1] = static_cast<char>('0' + value % 10);
}

static void put_number(char *p, int32_t value, size_t digits)
{
    put_digits(p, static_cast<uint64_t>(value < 0 ? 0 : value), digits);
}

// Formats a time of the years 0 to 9999; others become the nearest of them.
static void put_time(char *p, int64_t time_us)
{
    constexpr int64_t YEAR_0 = -62167219200;
    constexpr int64_t YEAR_9999_END = 253402300799;
    int64_t second = time_us / US_PER_S;
    int64_t microseconds = time_us % US_PER_S;
    if (microseconds < 0) {
        second--;
        microseconds += US_PER_S;
    }
    const time_t when = second < YEAR_0 ? YEAR_0 : second > YEAR_9999_END ? YEAR_9999_END : second;
    struct tm tm = {};
    (void)gmtime_r(&when, &tm); // in range
    memcpy(p, TIME_FORM.data(), TIME_FORM.size());
    put_number(p, tm.tm_year + 1900, 4);
    put_number(p + 5, tm.tm_mon + 1, 2);
    put_number(p + 8, tm.tm_mday, 2);
    put_number(p + 11, tm.tm_hour, 2);
    put_number(p + 14, tm.tm_min, 2);
    put_number(p + 17, tm.tm_sec, 2);
    put_digits(p + MICROSECONDS_AT, static_cast<uint64_t>(microseconds), 6);
}

std::string fwu_time_text(int64_t time_us)
{
    std::string text(TIME_FORM);
    put_time(text.data(), time_us);
    return text;
}

static void put_crc(char *p, uint32_t crc)
{
    static constexpr char DIGITS[] = "0123456789abcdef";
    for (size_t i = 0; i < CRC_SIZE; i++)
        p[i] = DIGITS[crc >> (28 - 4 * i) & 0xF];
}

std::string fwu_status_prefix(const std::string &log_directory)
{
    std::string prefix(FIRST_LINE);
    prefix.append(LOG_WORD).append(log_directory).append("\n");
    return prefix;
}

bool fwu_status_fits(const std::string &log_directory)
{
    return log_directory.find('\n') == log_directory.npos &&
           fwu_status_prefix(log_directory).size() + FWU_STATUS_LINES * FWU_STATUS_LINE_SIZE <=
               FWU_STATUS_SIZE_MAX;
}

static void finish_line(fwu_status_line &line, int number)
{
    line.text[0] = static_cast<char>('0' + number);
    put_crc(line.text + CRC_AT, fwu_crc32c(line.prefix_crc, line.text, CRC_WORD_AT));
}

// What is the same in every line.
static void begin_line(fwu_status_line &line)
{
    const auto put = [&line](size_t at, std::string_view word) {
        memcpy(line.text + at, word.data(), word.size());
    };
    put(1, POSITION_WORD);
    put(TIME_WORD_AT, TIME_WORD);
    put(CRC_WORD_AT, CRC_WORD);
    line.text[FWU_STATUS_LINE_SIZE - 1] = '\n';
}

void fwu_status_line_none(fwu_status_line &line, int number)
{
    begin_line(line);
    memcpy(line.text + POSITION_AT, NO_POSITION.data(), NO_POSITION.size());
    memcpy(line.text + TIME_AT, NO_TIME.data(), NO_TIME.size());
    line.position = fwu_position();
    finish_line(line, number);
}

// Adds one to a number in digits.
static void increment(char *p, size_t digits)
{
    char *digit = p + digits - 1;
    for (; *digit == '9' && digit > p; digit--)
        *digit = '0';
    ++*digit;
}

void fwu_status_line_set(fwu_status_line &line, int number, const fwu_position &position,
                         int64_t time_us)
{
    char *const p = line.text + POSITION_AT;
    const bool fresh = line.position.sequence == 0;
    if (fresh)
        begin_line(line);
    const bool file_changes = fresh || position.generation != line.position.generation ||
                              position.sequence != line.position.sequence;
    if (file_changes) {
        memcpy(p, POSITION_FORM.data(), POSITION_FORM.size());
        put_number(p, position.generation, 4);
        put_number(p + SEQUENCE_AT, position.sequence, 8);
    }
    // The next record of the same file, mostly; a tag never needs more digits.
    if (!file_changes && position.tag > 0 && line.position.tag == position.tag - 1)
        increment(p + TAG_AT, TAG_DIGITS);
    else
        put_number(p + TAG_AT, position.tag, TAG_DIGITS);
    if (fresh || time_us != line.time_us)
        put_time(line.text + TIME_AT, time_us);
    line.position = position;
    line.time_us = time_us;
    finish_line(line, number);
}

std::string fwu_status_put(const fwu_status_text &text)
{
    std::string bytes = fwu_status_prefix(text.log_directory);
    fwu_status_line line;
    line.prefix_crc = fwu_crc32c(0, bytes.data(), bytes.size());
    for (int number = 0; number < FWU_STATUS_LINES; number++) {
        if (text.have_position)
            fwu_status_line_set(line, number, text.position, text.time_us);
        else
            fwu_status_line_none(line, number);
        bytes.append(line.text, sizeof line.text);
    }
    return bytes;
}

// Reads a value in which digits stand where form has digits, and the same
// characters elsewhere.
static bool has_form(std::string_view value, std::string_view form)
{
    for (size_t i = 0; i < form.size(); i++) {
        const bool digit = value[i] >= '0' && value[i] <= '9';
        const bool wants_digit = form[i] >= '0' && form[i] <= '9';
        if (digit != wants_digit || (!digit && value[i] != form[i]))
            return false;
    }
    return true;
}

static int64_t get_digits(std::string_view value, size_t at, size_t digits)
{
    int64_t number = 0;
    for (size_t i = at; i < at + digits; i++)
        number = number * 10 + (value[i] - '0');
    return number;
}

static int64_t get_time_us(std::string_view value)
{
    struct tm tm = {};
    tm.tm_year = static_cast<int>(get_digits(value, 0, 4)) - 1900;
    tm.tm_mon = static_cast<int>(get_digits(value, 5, 2)) - 1;
    tm.tm_mday = static_cast<int>(get_digits(value, 8, 2));
    tm.tm_hour = static_cast<int>(get_digits(value, 11, 2));
    tm.tm_min = static_cast<int>(get_digits(value, 14, 2));
    tm.tm_sec = static_cast<int>(get_digits(value, 17, 2));
    return timegm(&tm) * US_PER_S + get_digits(value, MICROSECONDS_AT, 6);
}

// Checks and decodes one line that is not being changed.
static bool get_line(std::string_view line, uint32_t prefix_crc, fwu_status_text &text)
{
    char crc[CRC_SIZE];
    put_crc(crc, fwu_crc32c(prefix_crc, line.data(), CRC_WORD_AT));
    if (line[0] < '0' || line[0] > '9' || line.substr(1, POSITION_WORD.size()) != POSITION_WORD ||
        line.substr(TIME_WORD_AT, TIME_WORD.size()) != TIME_WORD ||
        line.substr(CRC_WORD_AT, CRC_WORD.size()) != CRC_WORD ||
        line.substr(CRC_AT, CRC_SIZE) != std::string_view(crc, CRC_SIZE) || line.back() != '\n')
        return false;
    const std::string_view position = line.substr(POSITION_AT, POSITION_FORM.size());
    const std::string_view time = line.substr(TIME_AT, TIME_FORM.size());
    text.have_position = position != NO_POSITION;
    if (!text.have_position)
        return time == NO_TIME;
    if (!has_form(position, POSITION_FORM) || !has_form(time, TIME_FORM))
        return false;
    const int64_t tag = get_digits(position, TAG_AT, TAG_DIGITS);
    if (tag > INT32_MAX)
        return false;
    text.position.generation = static_cast<int32_t>(get_digits(position, 0, 4));
    text.position.sequence = static_cast<int32_t>(get_digits(position, SEQUENCE_AT, 8));
    text.position.tag = static_cast<int32_t>(tag);
    text.time_us = get_time_us(time);
    return true;
}

int fwu_status_get(fwu_status_text &text, const std::string &bytes)
{
    text = fwu_status_text();
    if (bytes.empty())
        return 0;
    text.fresh = false;
    constexpr size_t LINES_SIZE = FWU_STATUS_LINES * FWU_STATUS_LINE_SIZE;
    if (bytes.size() < LINES_SIZE)
        return -1;
    const std::string_view whole = bytes;
    const std::string_view prefix = whole.substr(0, whole.size() - LINES_SIZE);
    const size_t fixed = FIRST_LINE.size() + LOG_WORD.size();
    if (prefix.size() < fixed + 1 || prefix.substr(0, FIRST_LINE.size()) != FIRST_LINE ||
        prefix.substr(FIRST_LINE.size(), LOG_WORD.size()) != LOG_WORD || prefix.back() != '\n')
        return -1;
    text.log_directory = prefix.substr(fixed, prefix.size() - fixed - 1);
    if (fwu_status_prefix(text.log_directory) != prefix || !fwu_status_fits(text.log_directory))
        return -1;

    const uint32_t prefix_crc = fwu_crc32c(0, prefix.data(), prefix.size());
    int newest = -1; // number of the line taken
    for (int i = 0; i < FWU_STATUS_LINES; i++) {
        const std::string_view line = whole.substr(
            prefix.size() + static_cast<size_t>(i) * FWU_STATUS_LINE_SIZE, FWU_STATUS_LINE_SIZE);
        if (line[0] == FWU_STATUS_CHANGING)
            continue; // whoever wrote it was killed just then
        fwu_status_text other = text;
        if (!get_line(line, prefix_crc, other))
            return -1;
        const int number = line[0] - '0';
        const bool follows = newest >= 0 && number == (newest + 1) % 10;
        if (newest >= 0 && !follows && newest != (number + 1) % 10)
            return -1;
        if (newest < 0 || follows) {
            text = other;
            newest = number;
        }
    }
    return newest < 0 ? -1 : 0;
}
