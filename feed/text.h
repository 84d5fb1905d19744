// Texts of a source: UTF-8 in the encoding of a log, array literals, names.
#ifndef FEED_TEXT_H
#define FEED_TEXT_H

#include "fwutil/fwu_items.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t FEED_ALL = std::string_view::npos;
constexpr uint32_t FEED_NOT_UTF8 = UINT32_MAX; // no character: bytes that are not UTF-8

// What became of a text.
struct feed_encoded {
    size_t taken = 0; // bytes of it that out stands for
    uint32_t bad = 0; // the first character of these without a place, or FEED_NOT_UTF8; 0: none
};

// Brings UTF-8 to an encoding, as many whole characters as room bytes hold.  Characters without
// a place there become "?" in ISO 8859-1, and so does each byte that is no part of one; in
// UTF-8, where only such bytes have no place, each becomes U+FFFD.
feed_encoded feed_encode(std::string &out, std::string_view utf8, fwu_encoding encoding,
                         size_t room);

// What a text would become as a whole.
struct feed_measured {
    size_t length = 0; // bytes
    uint32_t bad = 0;  // as above
};
feed_measured feed_measure(std::string_view utf8, fwu_encoding encoding);

// In ISO 8859-1, whatever has no place there.
std::string feed_latin1(std::string_view utf8);

// Bytes of ASCII that a text begins with.
size_t feed_ascii_length(std::string_view text);

// The elements of a one-dimensional array literal such as {44,0,"a \"b\""}; a
// leading "[0:3]=" is passed over.  Those behind the first most are counted only, since a literal
// may have millions.  Returns null, or what is wrong with it.
const char *feed_array(std::vector<std::string> &elements, size_t &count, std::string_view literal,
                       size_t most);

// Name of a dataset or item for a table or column: upper case, "_" becomes "-".
std::string feed_name(std::string_view name);

// The beginning of a value, in quotes, for a message: no control characters, not
// longer than a line can bear.
std::string feed_quote(std::string_view value);

#endif
