// The types of a server's columns: what they are called, what their values mean, and the item
// that holds them.  Those that are built in are known by their number; what others are, the
// server's catalogue says.
#ifndef FEED_POSTGRESQL_TYPES_H
#define FEED_POSTGRESQL_TYPES_H

#include "feed/row.h"
#include "fwutil/fwu_items.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

// What the catalogue says of a type.
struct pgt_fact {
    std::string name = {}; // as the server writes it, without modifier: "public.mood"
    char kind = 'b';       // b base, c composite, d domain, e enum, r range, m multirange
    char category = 'U';   // A array, S string, N number, D date and time, ...
    uint32_t base = 0;     // of a domain: the type that it restricts
    int32_t modifier = -1; // ... and the modifier of that
    uint32_t element = 0;  // of an array
    bool operator==(const pgt_fact &) const = default;
};
using pgt_facts = std::unordered_map<uint32_t, pgt_fact>; // by OID

// Name of a type that is built in ("timestamp with time zone", "smallint[]"), or null.
const char *pgt_name(uint32_t type);

// The type of a column as the server writes it ("numeric(9,2)"), without asking it; empty for
// types that are not known here.
std::string pgt_text(uint32_t type, int32_t modifier);

// A type with what stands behind domains taken in their place.
struct pgt_type {
    uint32_t type = 0; // OID
    int32_t modifier = -1;
    bool known = false; // it is built in, or the catalogue has said what it is
};
pgt_type pgt_resolve(uint32_t type, int32_t modifier, const pgt_facts &facts);

// Its names without modifier, as far as known, that of a domain before that of its base.
std::vector<std::string> pgt_names(uint32_t type, const pgt_facts &facts);

// Whether a type that is built in has this name.
bool pgt_has_name(std::string_view name);

// What values of a type mean.  What may be cut is words, also where the server's text of a
// value has some structure; a number or a date that is cut would be another one.
feed_type pgt_meaning(uint32_t type, const pgt_facts &facts);

// How long the values of a type get.
enum pgt_length {
    PGT_EXACT,   // none is longer
    PGT_COUNTED, // so many characters, of which few need all the bytes that one may take
    PGT_DEFAULT, // any length
};

// The item for a column; only its type, size and decimal places are set.
struct pgt_item {
    fwu_item item;
    pgt_length length = PGT_EXACT;
};
pgt_item pgt_item_of(uint32_t type, int32_t modifier, fwu_encoding encoding,
                     const pgt_facts &facts);

#endif
