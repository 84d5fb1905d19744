// A value is brought to its item by the item's type letter; the meaning that its source
// gives it decides only what cannot be seen from the value itself.
#include "feed/value.h"

#include "feed/decimal.h"
#include "feed/stamp.h"
#include "feed/text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

static constexpr size_t STAMP_LENGTH = 19; // "YYYY-MM-DD HH:MM:SS"
static constexpr size_t STAMP_DECIMALS_MAX = 6;

struct value {
    feed_kind kind;
    std::string_view text;
    feed_meaning meaning;
};

static bool is_text(const fwu_item &item)
{
    return item.type == 'X' || item.type == 'U';
}

// "PRICE (P 5, 2 decimal places)"
static std::string describe(const fwu_item &item)
{
    std::string out =
        item.name + " (" + static_cast<char>(item.type) + " " + std::to_string(item.size);
    if (item.type == 'P' || item.type == 'Z')
        out += ", " + std::to_string(item.item_aux) + " decimal places";
    return out + ")";
}

static outcome number_error(const fwu_item &item, std::string_view text, feed_number_result result)
{
    std::string error = feed_quote(text);
    switch (result) {
    case FEED_NUMBER_OK:
        return {};
    case FEED_NOT_A_NUMBER:
        error += " is not a number, item " + describe(item) + " needs one: make it an X item";
        break;
    case FEED_NUMBER_FRACTION:
        error += " has decimal places that item " + describe(item) +
                 " has no room for: give the item more of them (scale=N)";
        break;
    case FEED_NUMBER_DIGITS:
        error += " has more digits than item " + describe(item) + " holds: make the item longer";
        break;
    case FEED_NUMBER_RANGE:
        error += " is out of the range of item " + describe(item) + ": make the item wider";
        break;
    }
    return outcome_bad(std::move(error));
}

static outcome put_number(const feed_value_work &work, const fwu_item &item, const value &from,
                          unsigned char *out)
{
    const std::string_view text = from.kind == FEED_TRUE    ? "1"
                                  : from.kind == FEED_FALSE ? "0"
                                                            : from.text;
    const bool big_endian = work.settings.big_endian;
    feed_number_result result = FEED_NUMBER_OK;
    switch (item.type) {
    case 'E':
    case 'R':
        result = feed_put_float(text, big_endian, out, item.size);
        break;
    case 'P':
        result = feed_put_packed(text, item.item_aux, out, item.size);
        break;
    case 'Z':
        result = feed_put_zoned(text, item.item_aux, out, item.size);
        break;
    default:
        result = feed_put_integer(text, item.type != 'K', big_endian, out, item.size);
        break;
    }
    return result == FEED_NUMBER_OK ? outcome() : number_error(item, text, result);
}

// The timestamp as work.text; one with time zone becomes UTC.
static outcome make_stamp(feed_value_work &work, const fwu_item &item, std::string_view text)
{
    if (text == "infinity" || text == "-infinity") {
        work.text = text;
        return {};
    }
    feed_stamp stamp;
    if (!feed_stamp_parse(stamp, text))
        return outcome_bad(feed_quote(text) +
                           " is not a timestamp of the years 0001 to 9999, written "
                           "YYYY-MM-DD HH:MM:SS: let the server write dates in the ISO "
                           "style, or leave the column out of the dataset");
    const size_t width = static_cast<size_t>(item.size);
    const size_t decimals =
        width <= STAMP_LENGTH ? 0 : std::min(width - STAMP_LENGTH - 1, STAMP_DECIMALS_MAX);
    if (feed_stamp_format(work.text, stamp, static_cast<int>(decimals)))
        return {};
    return outcome_bad(
        feed_quote(text) + " has decimals that item " + describe(item) +
        " has no room for (or a year above 9999 in UTC): make the item up to 26 wide");
}

static outcome make_latin1(feed_value_work &work, std::string_view text)
{
    uint32_t bad = 0;
    if (feed_latin1(work.text, text, bad))
        return {};
    char code[16];
    snprintf(code, sizeof code, "U+%04X", static_cast<unsigned>(bad));
    return outcome_bad(feed_quote(text) + " has the character " + code +
                       ", which has no place in ISO 8859-1: change the text at its source, or "
                       "leave the column out of the dataset");
}

static void drop_filling(std::string &text, size_t width)
{
    while (text.size() > width && text.back() == ' ')
        text.pop_back();
}

static outcome put_text(feed_value_work &work, const fwu_item &item, const value &from,
                        unsigned char *out)
{
    const size_t width = static_cast<size_t>(item.size);
    bool may_cut = false;
    if (from.kind == FEED_TRUE || from.kind == FEED_FALSE) {
        work.text = from.kind == FEED_TRUE ? "T" : "F";
    } else if (from.kind == FEED_DIGITS) {
        work.text = from.text;
    } else if (from.meaning == FEED_TIMESTAMP) {
        if (outcome made = make_stamp(work, item, from.text); !made)
            return made;
    } else {
        if (outcome made = make_latin1(work, from.text); !made)
            return made;
        may_cut = from.meaning == FEED_WORDS || from.meaning == FEED_FILLED_WORDS;
        if (from.meaning == FEED_FILLED_WORDS)
            drop_filling(work.text, width);
    }

    if (work.text.size() > width) {
        if (!may_cut || !work.settings.truncate)
            return outcome_bad(feed_quote(from.text) + " is " + std::to_string(work.text.size()) +
                               " characters long, item " + describe(item) + " holds " +
                               std::to_string(width) + ": make the item wider" +
                               (may_cut ? ", or cut texts with --truncate" : ""));
        work.text.resize(width);
        work.truncated++;
    }
    memcpy(out, work.text.data(), work.text.size());
    memset(out + work.text.size(), ' ', width - work.text.size());
    return {};
}

static outcome put_value(feed_value_work &work, const fwu_item &item, const value &from,
                         unsigned char *out)
{
    return is_text(item) ? put_text(work, item, from, out) : put_number(work, item, from, out);
}

static outcome put_array(feed_value_work &work, const fwu_item &item, const value &from,
                         unsigned char *out)
{
    if (from.kind != FEED_TEXT)
        return outcome_bad("is not an array, item " + item.name + " has " +
                           std::to_string(item.count) + " elements: give it one element");
    if (const char *wrong = feed_array(work.elements, from.text))
        return outcome_bad(feed_quote(from.text) + " " + wrong + "; item " + item.name +
                           " needs a list of " + std::to_string(item.count) +
                           " values: or make it an X item of one element");
    if (work.elements.size() != static_cast<size_t>(item.count))
        return outcome_bad(feed_quote(from.text) + " has " + std::to_string(work.elements.size()) +
                           " elements, item " + item.name + " has " + std::to_string(item.count) +
                           ": the numbers must be the same");
    for (const std::string &element : work.elements) {
        value one{.kind = FEED_TEXT, .text = element, .meaning = from.meaning};
        if (from.meaning == FEED_BOOLEAN && (element == "t" || element == "f"))
            one.kind = element == "t" ? FEED_TRUE : FEED_FALSE;
        if (outcome put = put_value(work, item, one, out); !put)
            return put;
        out += item.size;
    }
    return {};
}

void feed_put_blank(const fwu_item &item, unsigned char *out)
{
    for (int32_t i = 0; i < item.count; i++, out += item.size) {
        if (is_text(item))
            memset(out, ' ', static_cast<size_t>(item.size));
        else if (item.type == 'P')
            (void)feed_put_packed("0", 0, out, item.size); // zero always fits
        else if (item.type == 'Z')
            (void)feed_put_zoned("0", 0, out, item.size);
        else
            memset(out, 0, static_cast<size_t>(item.size));
    }
}

// No number looks like it.
static bool is_array(const feed_column &column)
{
    return column.kind == FEED_TEXT &&
           (column.value.starts_with('{') || column.value.starts_with('['));
}

outcome feed_put_value(feed_value_work &work, const fwu_item &item, const feed_column &column,
                       unsigned char *out)
{
    // A text takes an array as it is written.
    const bool array = item.count > 1 || (!is_text(item) && is_array(column));
    const value from{.kind = column.kind,
                     .text = column.value,
                     .meaning = array ? column.type.element : column.type.whole};
    return array ? put_array(work, item, from, out) : put_value(work, item, from, out);
}
