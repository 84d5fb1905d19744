// How a file's text columns are made, and the room that the end of its lines needs.
#ifndef ASCII_ASCII_FLAGS_H
#define ASCII_ASCII_FLAGS_H

#include <cstdint>

constexpr uint32_t ASCII_ON = 1;      // -ascii: text columns at all
constexpr uint32_t ASCII_REVERSE = 2; // -asciirev, together with ASCII_ON
constexpr uint32_t ASCII_DIRTY = 4;   // -dirty
constexpr uint32_t ASCII_BWFMT = 8;   // -bwfmt

// Bytes past a record buffer's size that are always there for the end of a text line.
constexpr int RECBUF_SPARE = 2;

#endif
