// The capture configuration's records: the run's capinfo, the options pending for the
// next capture file, and the capture files.  Everything in this folder works on them.
#ifndef CAPTURE_CAPFIL_H
#define CAPTURE_CAPFIL_H

#include "ascii/ascii_flags.h"
#include "capture/hdrlayout.h"
#include "driver/base/dsetinfo.h"

#include <cstdint>

struct cap_format;
struct ebmf;
struct selection;
struct slist;

// Bytes of a fresh record buffer behind the header.
constexpr int RECBUF_ROOM = 256;

// Options pending for the next capture file.
struct capcfg {
    uint32_t hdropts;     // HDR_ bits
    int32_t share_mode;   // 1: open the message file in shared mode; no option sets it
    uint32_t ascii_flags; // ASCII_ bits
    int32_t info_item;    // header item kind that -info replaces; 0: none
    int32_t ndsets;       // number of patterns
    char *progterm;       // owned; program-name terminator or null
    char **dsets;         // owned; patterns as typed
};

// What is told of a capture file while the run goes on.
struct cap_told {
    int64_t records;  // written
    int64_t bytes;    // of these as they were made, header included, line ends and framing not
    int64_t failures; // records that it selects and that were not written
    int64_t seen;     // records when last_us was set
    int64_t last_us;  // when the last one was written; 0: none
    int32_t logtime;  // of the last one
};

// One capture file.
struct capfil {
    char *name;               // owned; the next file's name after a rollover
    int32_t share_mode;       // as in capcfg
    ebmf *fp;                 // owned; null until the first record is written
    char *recbuf;             // owned; the record under construction: header, then data
    char *progterm;           // owned; program-name terminator or null
    int32_t bufsize;          // bytes of recbuf, RECBUF_SPARE not counted; only grows
    int32_t hdrsize;          // bytes of the header
    uint32_t hdropts;         // HDR_ bits
    uint32_t ascii_flags;     // ASCII_ bits
    int32_t rollover;         // 1: next file at the size limit; 0: a full file is an error
    int32_t maxbytes;         // size limit in bytes
    int32_t fnum;             // file number, shown as "#%d"
    int32_t info_item;        // as in capcfg
    hdritem **hdritems;       // owned; null-terminated header layout
    int32_t nwritten;         // write attempts, over the whole run
    char op[3];               // operation code of the record: IP, IU or ID
    int32_t npats;            // number of patterns; 0 exactly when pats is null
    char **pats;              // owned; normalised patterns
    slist *stats;             // owned; counts by database and dataset, or null
    int32_t nsynced;          // nwritten when the file was brought to disk last
    int32_t synced_end;       // of a message file: where its records ended then
    uint64_t synced_sum;      // and their checksum there
    int32_t name_synced;      // 1: the file's name is on disk too
    int32_t absence_synced;   // 1: that no file has the name is on disk
    const cap_format *format; // the output format that ascii_flags choose
    cap_told *told;           // counts, or null: nobody asks
};

// The run.
struct capinfo {
    int32_t ncf;         // number of capture files
    capfil **capfiles;   // owned; in command-line order
    slist *skipstats;    // owned; counts of records no file took, or null
    dsetinfo *dsets;     // owned; item layout of the current record's dataset
    selection *selected; // owned; which files take which dataset, null before the first record
};

#endif
