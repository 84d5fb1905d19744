// Texts of a source: UTF-8 to ISO 8859-1, array literals, names.
#ifndef FEED_TEXT_H
#define FEED_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Converts UTF-8 to ISO 8859-1.  Returns true, or false at the first character
// that has no place there, whose code point goes to bad (0xFFFD for bytes that
// are not UTF-8); out then holds what came before.
bool feed_latin1(std::string &out, std::string_view utf8, uint32_t &bad);

// As feed_latin1, but with "?" for each character without a place.
std::string feed_latin1_lossy(std::string_view utf8);

// The elements of a one-dimensional array literal such as {44,0,"a \"b\""}; a
// leading "[0:3]=" is passed over.  Returns null, or what is wrong with it.
const char *feed_array(std::vector<std::string> &elements, std::string_view literal);

// Name of a dataset or item for a table or column: upper case, "_" becomes "-".
std::string feed_name(std::string_view name);

// The beginning of a value, in quotes, for a message: no control characters, not
// longer than a line can bear.
std::string feed_quote(std::string_view value);

#endif
