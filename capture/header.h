// The capture record header: its layout, made once for a capture file, and its
// filling for each record.
#ifndef CAPTURE_HEADER_H
#define CAPTURE_HEADER_H

#include <cstdint>
#include <ctime>

struct capfil;
struct log_record;

// Header item kinds.
enum hdrkind : int32_t {
    HDRKIND_NONE,
    HDRKIND_SEQUENCE, // records of this file before this one
    HDRKIND_DBNAME,   // database name
    HDRKIND_DBFGA,    // database name in its three-part form
    HDRKIND_DSETNAME, // dataset name
    HDRKIND_DATE4,    // local date and time, 4-digit year
    HDRKIND_DATE2,    // local date and time, 2-digit year
    HDRKIND_OP,       // operation code
    HDRKIND_PROG,     // program
    HDRKIND_SESSION,  // session user
    HDRKIND_DBUSER,   // database user
    HDRKIND_PID,      // process id
    HDRKIND_RECNUM,   // log record number
    HDRKINDS
};

struct hdritem {
    int32_t kind;   // one of hdrkind
    int32_t offset; // byte position in the header
    int32_t size;   // bytes; fixed by the kind
};

// Width of a kind in bytes; 0 for kind 0 and unknown kinds.
int32_t cap_header_item_size(int32_t kind);

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
