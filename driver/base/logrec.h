// The log-record view: what the forward-log library passes to the callback for
// one record, in its order, and the operation codes.
#ifndef DRIVER_BASE_LOGREC_H
#define DRIVER_BASE_LOGREC_H

#include <cstdint>

constexpr int32_t OP_UPDATE = 1;
constexpr int32_t OP_INSERT = 3;
constexpr int32_t OP_DELETE = 5;

// Names and images are owned by the library and valid during the callback only.
struct log_record {
    uint32_t reserved;        // passed by the library; not read
    const char *dbname;       // database name
    const char *dsetname;     // dataset name
    int32_t logtime;          // time of the change, seconds since 1970
    int32_t opcode;           // OP_UPDATE, OP_INSERT or OP_DELETE
    int32_t recnum;           // log record number
    int32_t reclen;           // bytes of one image; both images of an update have this length
    const void *before_image; // record before the change: update, delete
    const void *after_image;  // record after the change: update, insert
};

// The record's names as text; empty when the library gives none.
inline const char *logrec_dbname(const log_record *record)
{
    return record->dbname == nullptr ? "" : record->dbname;
}

inline const char *logrec_dsetname(const log_record *record)
{
    return record->dsetname == nullptr ? "" : record->dsetname;
}

#endif
