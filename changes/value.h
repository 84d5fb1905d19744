// The bytes of an item's element as what its type says they are.
#ifndef CHANGES_VALUE_H
#define CHANGES_VALUE_H

#include "fwutil/fwu_items.h"

#include <string>
#include <string_view>

enum change_value {
    CHANGE_NUMBER,  // its digits, as JSON and SQL write numbers: -12.30, 1e-05
    CHANGE_SPECIAL, // NaN, Infinity or -Infinity
    CHANGE_TEXT,    // ISO 8859-1, without the blanks at its end
    CHANGE_BYTES,   // no value of the item's type
};

// What one element of an item holds, whose size bytes stand at element.  text: of numbers
// the digits, all that the item has, integers and decimals exactly, floating point with as many as
// tell it from its neighbours; of texts and bytes what stands there.  It is valid until the
// next call with this work, or as long as the element.
change_value change_value_get(std::string_view &text, std::string &work, const fwu_item &item,
                              bool big_endian, const unsigned char *element);

// Appends ISO 8859-1 text as UTF-8.
void change_put_utf8(std::string &out, std::string_view latin1);

#endif
