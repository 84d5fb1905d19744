// Encoding and checking lines.  The checksum of a line that names a record takes what
// follows the position first: that is the same for all records of a transaction.
#include "fwutil/fwu_status_line.h"

#include "fwutil/fwu_bytes.h"
#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_time.h"

#include <climits>
#include <cstring>

// 0 position 0001-00000025.0000000339 time 2026-11-21 03:33:52.123456 UTC lsn 0000000001BC8080
//   log 0123456789abcdef0123456789abcdef crc 1a2b3c4d      (one line)
// 1 synced at 00000600 length 00000123 text 1a2b3c4d crc 5e6f7a8b
static constexpr std::string_view POSITION_WORD = " position ";
static constexpr std::string_view TIME_WORD = " time ";
static constexpr std::string_view LSN_WORD = " lsn ";
static constexpr std::string_view LOG_WORD = " log ";
static constexpr std::string_view CRC_WORD = " crc ";
static constexpr std::string_view SYNCED_WORD = " synced at ";
static constexpr std::string_view LENGTH_WORD = " length ";
static constexpr std::string_view TEXT_WORD = " text ";
static constexpr std::string_view POSITION_FORM = "0001-00000025.0000000340";
static constexpr std::string_view TIME_FORM = "2026-11-21 03:33:52.123456 UTC";
static constexpr std::string_view NONE = "none";
static constexpr size_t LSN_SIZE = 16;
static constexpr size_t IDENTITY_SIZE = 32;
static constexpr size_t CRC_SIZE = 8;
static constexpr size_t OFFSET_SIZE = 8;

// Where the parts of a line stand.
static constexpr size_t POSITION_AT = 1 + POSITION_WORD.size();
static constexpr size_t TIME_WORD_AT = POSITION_AT + POSITION_FORM.size();
static constexpr size_t TIME_AT = TIME_WORD_AT + TIME_WORD.size();
static constexpr size_t LSN_WORD_AT = TIME_AT + TIME_FORM.size();
static constexpr size_t LSN_AT = LSN_WORD_AT + LSN_WORD.size();
static constexpr size_t LOG_WORD_AT = LSN_AT + LSN_SIZE;
static constexpr size_t LOG_AT = LOG_WORD_AT + LOG_WORD.size();
static constexpr size_t CRC_WORD_AT = LOG_AT + IDENTITY_SIZE;
static constexpr size_t CRC_AT = CRC_WORD_AT + CRC_WORD.size();
static_assert(CRC_AT + CRC_SIZE + 1 == FWU_STATUS_LINE_SIZE);
static constexpr size_t PLACE_AT = 2; // a place alone lacks the number and the CRC
static_assert(CRC_WORD_AT - PLACE_AT + 1 == FWU_PLACE_LINE_SIZE);

// In version 1 the CRC follows the time.
static constexpr size_t CRC_WORD_AT_1 = LSN_WORD_AT;
static constexpr size_t CRC_AT_1 = CRC_WORD_AT_1 + CRC_WORD.size();
static_assert(CRC_AT_1 + CRC_SIZE + 1 == FWU_STATUS_LINE_SIZE_1);

static constexpr size_t OFFSET_AT = 1 + SYNCED_WORD.size();
static constexpr size_t LENGTH_WORD_AT = OFFSET_AT + OFFSET_SIZE;
static constexpr size_t LENGTH_AT = LENGTH_WORD_AT + LENGTH_WORD.size();
static constexpr size_t TEXT_WORD_AT = LENGTH_AT + OFFSET_SIZE;
static constexpr size_t TEXT_AT = TEXT_WORD_AT + TEXT_WORD.size();
static constexpr size_t POINTER_CRC_WORD_AT = TEXT_AT + CRC_SIZE;
static constexpr size_t POINTER_CRC_AT = POINTER_CRC_WORD_AT + CRC_WORD.size();
static_assert(POINTER_CRC_AT + CRC_SIZE + 1 == FWU_POINTER_SIZE);

// Where the parts of a position stand.
static constexpr size_t SEQUENCE_AT = 5;
static constexpr size_t TAG_AT = 14;
static constexpr size_t TAG_DIGITS = 10;

static void put_digits(char *p, uint64_t value, size_t digits)
{
    for (size_t i = digits; i > 0; i--, value /= 10)
        p[i - 1] = static_cast<char>('0' + value % 10);
}

static void put_number(char *p, int32_t value, size_t digits)
{
    put_digits(p, static_cast<uint64_t>(value < 0 ? 0 : value), digits);
}

// The time, of the years 0 to 9999; others become the nearest of them.
static void put_time(char *p, int64_t time_us)
{
    const std::string text = fwu_time_text(time_us);
    memcpy(p, text.data(), TIME_FORM.size());
}

static constexpr char LOWER[] = "0123456789abcdef";
static constexpr char UPPER[] = "0123456789ABCDEF";

// Eight digits at once: each record changes as many.
static void put_hex8(char *p, uint32_t value, char ten)
{
    uint64_t x = value; // becomes a byte for each digit, the first one lowest
    x = (x >> 16 | x << 32) & 0x0000FFFF0000FFFF;
    x = (x >> 8 & 0x000000FF000000FF) | (x & 0x000000FF000000FF) << 16;
    x = (x >> 4 & 0x000F000F000F000F) | (x & 0x000F000F000F000F) << 8;
    const uint64_t letters = (x + 0x0606060606060606) >> 4 & 0x0101010101010101;
    x += 0x3030303030303030 + letters * static_cast<uint64_t>(ten - '0' - 10);
    put_le64(reinterpret_cast<unsigned char *>(p), x);
}

// digits: a multiple of 8.
static void put_hex(char *p, uint64_t value, size_t digits, const char (&letters)[17])
{
    for (size_t i = 0; i < digits; i += 8)
        put_hex8(p + i, static_cast<uint32_t>(value >> 4 * (digits - 8 - i)), letters[10]);
}

static void put_word(char *line, size_t at, std::string_view word)
{
    memcpy(line + at, word.data(), word.size());
}

// A word with blanks behind it up to a size.
static void put_padded(char *p, std::string_view word, size_t size)
{
    memset(p, ' ', size);
    memcpy(p, word.data(), word.size());
}

// What is the same in every line, and that it names no record.
static void begin_line(fwu_status_line &line)
{
    put_word(line.text, 1, POSITION_WORD);
    put_word(line.text, TIME_WORD_AT, TIME_WORD);
    put_word(line.text, LSN_WORD_AT, LSN_WORD);
    put_word(line.text, LOG_WORD_AT, LOG_WORD);
    put_word(line.text, CRC_WORD_AT, CRC_WORD);
    line.text[FWU_STATUS_LINE_SIZE - 1] = '\n';
    put_padded(line.text + POSITION_AT, NONE, POSITION_FORM.size());
    put_padded(line.text + TIME_AT, NONE, TIME_FORM.size());
    put_padded(line.text + LSN_AT, NONE, LSN_SIZE);
    put_padded(line.text + LOG_AT, NONE, IDENTITY_SIZE);
    line.place = fwu_place();
}

// The time of a line of which the time before is known; within a second only its
// fraction differs.
static void change_time(char *p, int64_t before_us, int64_t time_us)
{
    if (before_us == time_us)
        return;
    if (before_us >= 0 && time_us >= 0 && before_us / FWU_US_PER_S == time_us / FWU_US_PER_S)
        put_digits(p + FWU_TIME_MICROS_AT, static_cast<uint64_t>(time_us % FWU_US_PER_S), 6);
    else
        put_time(p, time_us);
}

static void put_log(char *p, const fwu_place &place)
{
    const bool known = place.full && fwu_identity_known(place.identity);
    put_padded(p,
               known         ? std::string_view(fwu_identity_text(place.identity))
               : !place.full ? "unknown"
                             : NONE,
               IDENTITY_SIZE);
}

static uint32_t crc_of_origin(const char *text, uint32_t prefix_crc)
{
    return fwu_crc32c(prefix_crc, text + TIME_WORD_AT, CRC_WORD_AT - TIME_WORD_AT);
}

// Adds one to a number in digits.
static void increment(char *p, size_t digits)
{
    char *digit = p + digits - 1;
    for (; *digit == '9' && digit > p; digit--)
        *digit = '0';
    ++*digit;
}

// The number of a position, mostly of the next record of the same file; a tag never
// needs more digits.
static void put_tag(char *p, int32_t before, int32_t tag, bool file_changes)
{
    if (!file_changes && tag > 0 && before == tag - 1)
        increment(p, TAG_DIGITS);
    else
        put_number(p, tag, TAG_DIGITS);
}

// Formats what differs from the place that stands in the line.
static void put_place(fwu_status_line &line, const fwu_place &place)
{
    const bool fresh = !line.begun || !fwu_place_named(line.place) || !fwu_place_named(place) ||
                       line.place.full != place.full;
    if (fresh)
        begin_line(line);
    line.begun = true;
    char *const text = line.text;
    fwu_place &before = line.place;
    const fwu_position &position = place.position;
    const bool file_changes = fresh || position.generation != before.position.generation ||
                              position.sequence != before.position.sequence;
    if (fwu_place_named(place)) {
        if (file_changes) {
            put_word(text, POSITION_AT, POSITION_FORM);
            put_number(text + POSITION_AT, position.generation, 4);
            put_number(text + POSITION_AT + SEQUENCE_AT, position.sequence, 8);
        }
        put_tag(text + POSITION_AT + TAG_AT, before.position.tag, position.tag, file_changes);
        before.position = position;
        if (!file_changes && place.time_us == before.time_us && place.lsn == before.lsn)
            return; // the same transaction
        if (fresh)
            put_time(text + TIME_AT, place.time_us);
        else
            change_time(text + TIME_AT, before.time_us, place.time_us);
        if (place.full)
            put_hex(text + LSN_AT, place.lsn, LSN_SIZE, UPPER);
        if (file_changes) // a file has one identity
            put_log(text + LOG_AT, place);
    }
    before = place;
    line.origin_crc = crc_of_origin(text, line.prefix_crc);
}

void fwu_status_line_set(fwu_status_line &line, int number, const fwu_place &place)
{
    put_place(line, place);
    line.text[0] = static_cast<char>('0' + number);
    put_hex(line.text + CRC_AT, fwu_crc32c(line.origin_crc, line.text, TIME_WORD_AT), CRC_SIZE,
            LOWER);
}

std::string fwu_place_line(const fwu_place &place)
{
    fwu_status_line line;
    put_place(line, place);
    return std::string(line.text + PLACE_AT, CRC_WORD_AT - PLACE_AT) + "\n";
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

// Whether value is a word with blanks behind it.
static bool is_padded(std::string_view value, std::string_view word)
{
    return value.substr(0, word.size()) == word &&
           value.find_first_not_of(' ', word.size()) == value.npos;
}

static bool get_hex(std::string_view value, const char (&letters)[17], uint64_t &number)
{
    number = 0;
    for (const char c : value) {
        const size_t digit = std::string_view(letters, 16).find(c);
        if (digit == std::string_view::npos)
            return false;
        number = number << 4 | digit;
    }
    return true;
}

static bool has_word(std::string_view line, size_t at, std::string_view word)
{
    return line.substr(at, word.size()) == word;
}

// The position and the time of a line.
static bool get_position(std::string_view line, fwu_place &place)
{
    const std::string_view position = line.substr(POSITION_AT, POSITION_FORM.size());
    const std::string_view time = line.substr(TIME_AT, TIME_FORM.size());
    if (!has_word(line, 1, POSITION_WORD) || !has_word(line, TIME_WORD_AT, TIME_WORD))
        return false;
    if (is_padded(position, NONE))
        return is_padded(time, NONE);
    if (!has_form(position, POSITION_FORM) || !has_form(time, TIME_FORM))
        return false;
    const int64_t tag = get_digits(position, TAG_AT, TAG_DIGITS);
    place.position.generation = static_cast<int32_t>(get_digits(position, 0, 4));
    place.position.sequence = static_cast<int32_t>(get_digits(position, SEQUENCE_AT, 8));
    place.position.tag = static_cast<int32_t>(tag);
    place.time_us = fwu_time_get(time);
    return tag <= INT32_MAX && place.position.generation > 0 && place.position.sequence > 0;
}

// The parts of a place in a line whose checksum is good, or that has none.
static bool get_place(std::string_view line, fwu_place &place)
{
    place = fwu_place();
    if (!get_position(line, place) || !has_word(line, LSN_WORD_AT, LSN_WORD) ||
        !has_word(line, LOG_WORD_AT, LOG_WORD))
        return false;
    const std::string_view lsn = line.substr(LSN_AT, LSN_SIZE);
    const std::string_view log = line.substr(LOG_AT, IDENTITY_SIZE);
    place.full = !is_padded(log, "unknown");
    if (!place.full || !fwu_place_named(place))
        return is_padded(lsn, NONE) && (!place.full || is_padded(log, NONE));
    return get_hex(lsn, UPPER, place.lsn) &&
           fwu_identity_parse(place.identity, is_padded(log, NONE) ? NONE : log);
}

static bool has_number(std::string_view line)
{
    return line[0] >= '0' && line[0] <= '9';
}

static bool has_crc(std::string_view line, size_t at, uint32_t crc)
{
    char text[CRC_SIZE];
    put_hex(text, crc, CRC_SIZE, LOWER);
    return has_word(line, at - CRC_WORD.size(), CRC_WORD) &&
           line.substr(at, CRC_SIZE) == std::string_view(text, CRC_SIZE) && line.back() == '\n';
}

bool fwu_status_line_get(std::string_view line, uint32_t prefix_crc, fwu_place &place)
{
    if (line.size() != FWU_STATUS_LINE_SIZE || !has_number(line))
        return false;
    const uint32_t origin_crc = crc_of_origin(line.data(), prefix_crc);
    return has_crc(line, CRC_AT, fwu_crc32c(origin_crc, line.data(), TIME_WORD_AT)) &&
           get_place(line, place);
}

bool fwu_status_line_get_1(std::string_view line, uint32_t prefix_crc, fwu_place &place)
{
    place = fwu_place();
    if (line.size() != FWU_STATUS_LINE_SIZE_1 || !has_number(line) ||
        !has_crc(line, CRC_AT_1, fwu_crc32c(prefix_crc, line.data(), CRC_WORD_AT_1)) ||
        !get_position(line, place))
        return false;
    place.full = !fwu_place_named(place);
    return true;
}

bool fwu_place_line_get(std::string_view line, fwu_place &place)
{
    if (line.size() != FWU_PLACE_LINE_SIZE || line.back() != '\n')
        return false;
    return get_place("0 " + std::string(line), place);
}

std::string fwu_pointer_line(const fwu_pointer &pointer, int number, uint32_t prefix_crc)
{
    char line[FWU_POINTER_SIZE];
    line[0] = static_cast<char>('0' + number);
    put_word(line, 1, SYNCED_WORD);
    put_digits(line + OFFSET_AT, pointer.at, OFFSET_SIZE);
    put_word(line, LENGTH_WORD_AT, LENGTH_WORD);
    put_digits(line + LENGTH_AT, pointer.length, OFFSET_SIZE);
    put_word(line, TEXT_WORD_AT, TEXT_WORD);
    put_hex(line + TEXT_AT, pointer.crc, CRC_SIZE, LOWER);
    put_word(line, POINTER_CRC_WORD_AT, CRC_WORD);
    put_hex(line + POINTER_CRC_AT, fwu_crc32c(prefix_crc, line, POINTER_CRC_WORD_AT), CRC_SIZE,
            LOWER);
    line[FWU_POINTER_SIZE - 1] = '\n';
    return {line, sizeof line};
}

bool fwu_pointer_line_get(std::string_view line, uint32_t prefix_crc, fwu_pointer &pointer)
{
    constexpr std::string_view eight = "00000000";
    uint64_t crc = 0;
    if (line.size() != FWU_POINTER_SIZE || !has_number(line) ||
        !has_crc(line, POINTER_CRC_AT, fwu_crc32c(prefix_crc, line.data(), POINTER_CRC_WORD_AT)) ||
        !has_word(line, 1, SYNCED_WORD) || !has_word(line, LENGTH_WORD_AT, LENGTH_WORD) ||
        !has_word(line, TEXT_WORD_AT, TEXT_WORD) ||
        !has_form(line.substr(OFFSET_AT, OFFSET_SIZE), eight) ||
        !has_form(line.substr(LENGTH_AT, OFFSET_SIZE), eight) ||
        !get_hex(line.substr(TEXT_AT, CRC_SIZE), LOWER, crc))
        return false;
    pointer.at = static_cast<size_t>(get_digits(line, OFFSET_AT, OFFSET_SIZE));
    pointer.length = static_cast<size_t>(get_digits(line, LENGTH_AT, OFFSET_SIZE));
    pointer.crc = static_cast<uint32_t>(crc);
    return true;
}
