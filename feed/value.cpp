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

std::string feed_item_text(const fwu_item &item)
{
    std::string out =
        item.name + " (" + static_cast<char>(item.type) + " " + std::to_string(item.size);
    if (item.type == 'P' || item.type == 'Z')
        out += ", " + std::to_string(item.item_aux) + " decimal places";
    return out + ")";
}

static outcome refuse(feed_value_work &work, std::string what, feed_refusal refusal)
{
    work.refusal = std::move(refusal);
    return outcome_bad(std::move(what));
}

static outcome number_error(feed_value_work &work, const fwu_item &item, std::string_view text,
                            feed_number_result result)
{
    const std::string value = feed_quote(text);
    const std::string name = feed_item_text(item);
    switch (result) {
    case FEED_NUMBER_OK:
        return {};
    case FEED_NOT_A_NUMBER:
        return refuse(work, value + " is not a number, item " + name + " needs one",
                      {.remedy = "make it an X item", .is_narrow = true});
    case FEED_NUMBER_FRACTION:
        return refuse(work, value + " has decimal places that item " + name + " has no room for",
                      {.remedy = "give the item more of them (scale=N)", .is_narrow = true});
    case FEED_NUMBER_DIGITS:
        return refuse(work, value + " has more digits than item " + name + " holds",
                      {.remedy = "make the item longer", .is_narrow = true});
    case FEED_NUMBER_RANGE:
        return refuse(work, value + " is out of the range of item " + name,
                      {.remedy = "make the item wider", .is_narrow = true});
    }
    return {};
}

static outcome put_number(feed_value_work &work, const fwu_item &item, const value &from,
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
    return result == FEED_NUMBER_OK ? outcome() : number_error(work, item, text, result);
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
        return refuse(work,
                      feed_quote(text) + " is not a timestamp of the years 0001 to 9999, written "
                                         "YYYY-MM-DD HH:MM:SS",
                      {.remedy = "let the server write dates in the ISO style, or leave the "
                                 "column out of the dataset",
                       .is_narrow = true});
    const size_t width = static_cast<size_t>(item.size);
    const size_t decimals =
        width <= STAMP_LENGTH ? 0 : std::min(width - STAMP_LENGTH - 1, STAMP_DECIMALS_MAX);
    if (feed_stamp_format(work.text, stamp, static_cast<int>(decimals)))
        return {};
    return refuse(work,
                  feed_quote(text) + " has decimals that item " + feed_item_text(item) +
                      " has no room for (or a year above 9999 in UTC)",
                  {.remedy = "make the item up to 26 wide", .is_narrow = true});
}

std::string feed_no_place_text(uint32_t bad)
{
    if (bad == FEED_NOT_UTF8)
        return "bytes that are not UTF-8";
    char code[16];
    snprintf(code, sizeof code, "U+%04X", static_cast<unsigned>(bad));
    return std::string("the character ") + code + ", which has no place in ISO 8859-1";
}

static outcome too_long(feed_value_work &work, const fwu_item &item, std::string_view text,
                        size_t length, bool may_cut)
{
    const bool utf8 = work.settings.encoding == FWU_UTF8;
    return refuse(work,
                  feed_quote(text) + " is " + std::to_string(length) +
                      (utf8 ? " bytes long, item " : " characters long, item ") +
                      feed_item_text(item) + " holds " + std::to_string(item.size),
                  {.remedy = "make the item wider", .is_narrow = true, .may_cut = may_cut});
}

static outcome no_place(feed_value_work &work, std::string_view text, uint32_t bad)
{
    return refuse(
        work, feed_quote(text) + " has " + feed_no_place_text(bad),
        {.remedy = std::string("change the text at its source, ") +
                   (bad == FEED_NOT_UTF8 ? "" : "begin a new log with text-encoding utf-8, ") +
                   "or leave the column out of the dataset"});
}

static void put_bytes(const feed_place &place, std::string_view bytes)
{
    memcpy(place.out, bytes.data(), bytes.size());
    memset(place.out + bytes.size(), ' ', static_cast<size_t>(place.item.size) - bytes.size());
}

// Blanks at the end of a text are its own, and an item's are filling: it does not tell them apart.
static void mark_blanks(feed_place &place, const value &from, std::string_view text)
{
    if (!place.mark || place.flag != FWU_FLAG_VALUE || !text.ends_with(' ') ||
        from.meaning == FEED_FILLED_WORDS)
        return;
    place.flag = FWU_FLAG_CUT;
    place.blanks = true;
}

// A text in the encoding of the log.
static outcome put_words(feed_value_work &work, feed_place &place, const value &from)
{
    const size_t width = static_cast<size_t>(place.item.size);
    const fwu_encoding encoding = work.settings.encoding;
    const bool may_cut = from.meaning == FEED_WORDS || from.meaning == FEED_FILLED_WORDS;
    std::string_view text = from.text;
    if (from.meaning == FEED_FILLED_WORDS) // the item is filled up with blanks again
        text = text.substr(0, text.find_last_not_of(' ') + 1);
    // Nearly all texts are ASCII, which is the same in each encoding.
    if (text.size() <= width && feed_ascii_length(text) == text.size()) {
        put_bytes(place, text);
        mark_blanks(place, from, text);
        return {};
    }

    const bool cuts = place.mark && may_cut;
    const feed_encoded made = feed_encode(work.text, text, encoding, width);
    const bool whole = made.taken == text.size();
    const feed_measured all = whole || cuts
                                  ? feed_measured{.length = work.text.size(), .bad = made.bad}
                                  : feed_measure(text, encoding);
    if (all.bad != 0 && !place.mark)
        return no_place(work, text, all.bad);
    if (!whole && !cuts) {
        if (!may_cut || !work.settings.truncate)
            return too_long(work, place.item, from.text, all.length, may_cut);
        work.truncated++;
    } else if (!whole) {
        place.flag = FWU_FLAG_CUT;
    }
    if (made.bad != 0 && place.flag == FWU_FLAG_VALUE) {
        place.flag = FWU_FLAG_REPLACED;
        place.bad = made.bad;
    }
    put_bytes(place, work.text);
    mark_blanks(place, from, text);
    return {};
}

static outcome put_text(feed_value_work &work, feed_place &place, const value &from)
{
    std::string_view text = from.text;
    if (from.kind == FEED_TRUE || from.kind == FEED_FALSE) {
        text = from.kind == FEED_TRUE ? "T" : "F";
    } else if (from.kind != FEED_DIGITS) {
        if (from.meaning != FEED_TIMESTAMP)
            return put_words(work, place, from);
        if (outcome made = make_stamp(work, place.item, text); !made)
            return made;
        text = work.text;
    }
    if (text.size() > static_cast<size_t>(place.item.size))
        return too_long(work, place.item, from.text, text.size(), false);
    put_bytes(place, text);
    return {};
}

static outcome put_one(feed_value_work &work, feed_place &place, const value &from)
{
    return is_text(place.item) ? put_text(work, place, from)
                               : put_number(work, place.item, from, place.out);
}

// What is to be said of an array of which one element became this.
static void add_element(feed_place &array, const feed_place &element)
{
    if (element.flag == FWU_FLAG_VALUE || array.flag == FWU_FLAG_CUT)
        return;
    array.flag = element.flag;
    array.blanks = element.blanks;
    array.bad = array.bad == 0 ? element.bad : array.bad;
}

static outcome put_array(feed_value_work &work, feed_place &place, const value &from)
{
    const fwu_item &item = place.item;
    if (from.kind != FEED_TEXT)
        return refuse(work,
                      "is not an array, item " + item.name + " has " + std::to_string(item.count) +
                          " elements",
                      {.remedy = "give it one element"});
    const auto wanted = static_cast<size_t>(item.count);
    size_t count = 0;
    if (const char *wrong = feed_array(work.elements, count, from.text, wanted))
        return refuse(work,
                      feed_quote(from.text) + " " + wrong + "; item " + item.name +
                          " needs a list of " + std::to_string(item.count) + " values",
                      {.remedy = "or make it an X item of one element"});
    if (count != wanted)
        return refuse(work,
                      feed_quote(from.text) + " has " + std::to_string(count) + " elements, item " +
                          item.name + " has " + std::to_string(item.count),
                      {.remedy = "the numbers must be the same"});
    feed_place element_place = {.item = item, .out = place.out, .mark = place.mark};
    for (const std::string &element : work.elements) {
        value one{.kind = FEED_TEXT, .text = element, .meaning = from.meaning};
        if (from.meaning == FEED_BOOLEAN && (element == "t" || element == "f"))
            one.kind = element == "t" ? FEED_TRUE : FEED_FALSE;
        element_place.flag = FWU_FLAG_VALUE;
        if (outcome put = put_one(work, element_place, one); !put)
            return put;
        add_element(place, element_place);
        element_place.out += item.size;
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

outcome feed_put_value(feed_value_work &work, feed_place &place, const feed_column &column)
{
    // A text takes an array as it is written.
    const bool array = place.item.count > 1 || (!is_text(place.item) && is_array(column));
    const value from{.kind = column.kind,
                     .text = column.value,
                     .meaning = array ? column.type.element : column.type.whole};
    return array ? put_array(work, place, from) : put_one(work, place, from);
}
