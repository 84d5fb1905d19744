// From the digits of a number to the bytes of an item: binary integers, packed
// and zoned decimals, IEEE floating point.  Decimal values never pass through
// a double, so no digit is lost or invented; what does not fit is refused.
#ifndef FEED_DECIMAL_H
#define FEED_DECIMAL_H

#include <cstdint>
#include <string_view>

enum feed_number_result {
    FEED_NUMBER_OK,
    FEED_NOT_A_NUMBER,
    FEED_NUMBER_FRACTION, // digits behind the last decimal place that the item has
    FEED_NUMBER_DIGITS,   // more digits than the item has
    FEED_NUMBER_RANGE,    // outside the range of the binary type
};

// Whether text is wholly a number as JSON writes them; leading zeros are allowed.
bool feed_is_number(std::string_view text);

// Signed or unsigned binary integer of 2, 4 or 8 bytes.
feed_number_result feed_put_integer(std::string_view text, bool is_signed, bool big_endian,
                                    unsigned char *out, int32_t size);

// Packed decimal: two digits a byte, the last half byte the sign, C plus and D
// minus; a zero is plus.  scale is the number of decimal places.
feed_number_result feed_put_packed(std::string_view text, int32_t scale, unsigned char *out,
                                   int32_t size);

// Zoned decimal: a digit a byte, the last one overpunched with the sign, "{" and
// "A" to "I" plus, "}" and "J" to "R" minus; a zero is plus.
feed_number_result feed_put_zoned(std::string_view text, int32_t scale, unsigned char *out,
                                  int32_t size);

// IEEE floating point of 4 or 8 bytes, rounded once, to the type itself.  The
// texts NaN, Infinity and -Infinity are numbers here.
feed_number_result feed_put_float(std::string_view text, bool big_endian, unsigned char *out,
                                  int32_t size);

#endif
