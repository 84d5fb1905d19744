// The bytes of an item's element as what its type says they are.
#ifndef CHANGES_VALUE_H
#define CHANGES_VALUE_H

#include "fwutil/fwu_items.h"

#include <string>
#include <string_view>

enum change_value {
    CHANGE_NUMBER,  // its digits, as JSON and SQL write numbers: -12.30, 1e-05
    CHANGE_SPECIAL, // NaN, Infinity or -Infinity
    CHANGE_LATIN1,  // a text in ISO 8859-1, without the blanks at its end
    CHANGE_UTF8,    // the same in UTF-8
    CHANGE_BYTES,   // no value of the item's type
};

// What one element of an item holds, whose size bytes stand at element; encoding: of the log's
// texts.  text: of numbers the digits, all that the item has, integers and decimals exactly,
// floating point with as many as tell it from its neighbours; of texts and bytes what stands there.
// It is valid until the next call with this work, or as long as the element.
change_value change_value_get(std::string_view &text, std::string &work, const fwu_item &item,
                              bool big_endian, fwu_encoding encoding, const unsigned char *element);

// What the whole value of an item is, as the source wrote it: a number only if the item is one.
change_value change_value_whole(std::string_view whole, const fwu_item &item);

// Whether a text is a number as JSON and SQL write them.
bool change_is_number(std::string_view text);

// Appends ISO 8859-1 text as UTF-8.
void change_put_utf8(std::string &out, std::string_view latin1);

#endif
