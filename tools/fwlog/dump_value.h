// Items of record images, and the times of a log, as text.
#ifndef TOOLS_FWLOG_DUMP_VALUE_H
#define TOOLS_FWLOG_DUMP_VALUE_H

#include "fwutil/fwu_items.h"
#include "fwutil/fwu_time.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Appends ` NAME=value` for each item; an item of several elements is written
// {value,value}.  Texts stand in quotes, in UTF-8, without the blanks at their
// end; bytes that are not what the item's type says as 0x... .  False, and nothing
// appended, when the layout does not cover length bytes.
bool dump_image(std::string &out, const fwu_layout &layout, bool big_endian, fwu_encoding encoding,
                const unsigned char *image, size_t length);

// Appends two hexadecimal digits for each byte.
void dump_hex(std::string &out, const unsigned char *bytes, size_t length);

// Appends ISO 8859-1 text in quotes, in UTF-8; control characters as \xNN, quotes
// and backslashes with a backslash.
void dump_text(std::string &out, std::string_view text);

// The same without the quotes around it, for a name; its quotes stay as they are.
void dump_name(std::string &out, std::string_view name);

// Appends UTF-8 text for a name in the same way, or in quotes as dump_text does; bytes that
// are none as \xNN.
void dump_utf8(std::string &out, std::string_view text);
void dump_utf8_text(std::string &out, std::string_view text);

// Appends the name of a table of the source as the configuration takes it, in quotes where it has
// to be; bytes that are no UTF-8 as \xNN.  The schema may be empty.
void dump_table(std::string &out, std::string_view schema, std::string_view table);

// Appends "2026-11-21 03:33:52.123456", in UTC, or so many characters of it.  False, and
// nothing appended, for a time outside the years 1 to 9999.
bool dump_time(std::string &out, int64_t second, int32_t micros, size_t length = FWU_TIME_SIZE);

#endif
