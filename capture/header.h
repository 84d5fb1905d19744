// The capture record header: its layout, made once for a capture file, and its
// filling for each record.
#ifndef CAPTURE_HEADER_H
#define CAPTURE_HEADER_H

#include "capture/hdrlayout.h"

#include <cstdint>
#include <ctime>

struct capfil;
struct log_record;

// Appends an item at offset, counts it in count and returns its width.
int32_t cap_add_header_item(capfil *cf, int *count, int32_t offset, int32_t kind);

// Lays out the header for the options, which it stores; returns its size.
int32_t cap_setup_header(capfil *cf, uint32_t hdropts);

// Fills all items for a record, or those that need none when it is null.
void cap_header_put(capfil *cf, const log_record *record);
void cap_header_put_item(capfil *cf, const hdritem *item, const log_record *record);

// Fills an item with the session's info entry.
void cap_header_put_info(capfil *cf, const hdritem *item);

// Puts a text into an item's place, cut or blank-padded to its width.
void cap_header_put_value(capfil *cf, const char *text, const hdritem *item);

constexpr int HDRDATE_SIZE = 80; // room for any date text

// Local time as text, with the full year, or for yeardigits 2 with the years
// since 2000 in at least two digits.
void cap_header_get_date(time_t time, char (&out)[HDRDATE_SIZE], int yeardigits);

void cap_header_free_items(capfil *cf);

// Prints the data elements of the current record's session.
void show_session_data();

#endif
