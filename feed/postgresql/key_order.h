// The order that the server has for values of a key, for texts of its values: what ORDER BY
// makes of them there, pgy_compare makes of them here.
#ifndef FEED_POSTGRESQL_KEY_ORDER_H
#define FEED_POSTGRESQL_KEY_ORDER_H

#include <cstdint>
#include <string_view>

// Whether values of a type (OID, what stands behind a domain) are compared here.  by_bytes: the
// server compares texts of the column byte by byte, and sends them as it has them.
bool pgy_comparable(uint32_t type, bool by_bytes);

// order is less than 0, 0 or greater as a stands before b, with it, or behind it.  False, order
// stays: a text is none of that type, or the type is not compared here.
bool pgy_compare(int &order, uint32_t type, std::string_view a, std::string_view b);

#endif
