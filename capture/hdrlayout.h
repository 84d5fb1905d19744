// Which items a capture record header has, in which order and how wide: the one place
// that says it, for whoever fills headers and whoever describes them.
#ifndef CAPTURE_HDRLAYOUT_H
#define CAPTURE_HDRLAYOUT_H

#include <array>
#include <cstddef>
#include <cstdint>

// Header options.
constexpr uint32_t HDR_EXTHDR = 1; // -exthdr
constexpr uint32_t HDR_YYYY = 2;   // -yyyy
constexpr uint32_t HDR_RECNUM = 4; // -recnum
constexpr uint32_t HDR_FGA = 8;    // -fga

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

inline constexpr std::array<int32_t, HDRKINDS> hdrkind_widths = {
    // clang-format off
    /* HDRKIND_NONE     */ 0,
    /* HDRKIND_SEQUENCE */ 6,
    /* HDRKIND_DBNAME   */ 24,
    /* HDRKIND_DBFGA    */ 24,
    /* HDRKIND_DSETNAME */ 16,
    /* HDRKIND_DATE4    */ 16,
    /* HDRKIND_DATE2    */ 14,
    /* HDRKIND_OP       */ 2,
    /* HDRKIND_PROG     */ 24,
    /* HDRKIND_SESSION  */ 8,
    /* HDRKIND_DBUSER   */ 24,
    /* HDRKIND_PID      */ 6,
    /* HDRKIND_RECNUM   */ 15,
    // clang-format on
};

// Width of a kind in bytes; 0 for kind 0 and unknown kinds.
constexpr int32_t cap_header_item_size(int32_t kind)
{
    return kind < 0 || kind >= HDRKINDS ? 0 : hdrkind_widths[static_cast<size_t>(kind)];
}

// The kinds of a header with these options, in their order.
struct hdrkinds_of {
    static constexpr size_t MAX = 10;
    std::array<hdrkind, MAX> kind = {};
    size_t n = 0;
};

constexpr hdrkinds_of cap_header_kinds(uint32_t hdropts)
{
    hdrkinds_of kinds;
    const auto add = [&kinds](hdrkind kind) { kinds.kind[kinds.n++] = kind; };
    add(HDRKIND_SEQUENCE);
    add((hdropts & HDR_FGA) != 0 ? HDRKIND_DBFGA : HDRKIND_DBNAME);
    add(HDRKIND_DSETNAME);
    add((hdropts & HDR_YYYY) != 0 ? HDRKIND_DATE4 : HDRKIND_DATE2);
    add(HDRKIND_OP);
    if ((hdropts & HDR_EXTHDR) != 0) {
        add(HDRKIND_PROG);
        add(HDRKIND_SESSION);
        add(HDRKIND_DBUSER);
        add(HDRKIND_PID);
    }
    if ((hdropts & HDR_RECNUM) != 0)
        add(HDRKIND_RECNUM);
    return kinds;
}

#endif
