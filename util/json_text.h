// Bytes as hexadecimal digits and as JSON strings, and such strings as bytes again.
#ifndef UTIL_JSON_TEXT_H
#define UTIL_JSON_TEXT_H

#include <string>
#include <string_view>

// Appends two lower-case digits for each byte.
void json_text_hex(std::string &out, std::string_view bytes);

// Appends a JSON string.  Bytes that are not UTF-8 become U+FFFD.
void json_text_append(std::string &out, std::string_view text);

// The same by itself.
std::string json_text(std::string_view text);

// Takes a string as json_text writes it from the front of a text.  False, with both as they were:
// none stands there.
bool json_text_take(std::string &value, std::string_view &text);

// The string of a member, the first one of this name; empty: there is none.  For objects that
// json_text has written the strings of.
std::string json_text_member(std::string_view json, std::string_view name);

// Whether all bytes are printable ASCII; so is nothing.
bool json_text_printable(std::string_view bytes);

#endif
