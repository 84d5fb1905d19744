// Bytes that are copied into a text column as they are.
#ifndef ASCII_ASCII_TEXT_H
#define ASCII_ASCII_TEXT_H

#include <cstdint>

// Unless flags say dirty, replaces each byte outside 0x20 to 0x7E by "~".
void clean_tgt(uint32_t flags, char *bytes, int64_t n);

#endif
