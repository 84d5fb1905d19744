// A transaction being collected for the log: its entries as they will stand in
// the file, in memory, the older part in a spill file once they are many.
#ifndef FWUTIL_FWU_TXN_H
#define FWUTIL_FWU_TXN_H

#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_spill.h"

#include <cstdint>
#include <string>
#include <vector>

constexpr size_t FWU_TXN_SPILL_SIZE = 8 * 1024 * 1024; // bytes kept in memory

struct fwu_txn {
    std::vector<unsigned char> entries; // behind what is spilled
    size_t counted = 0;                 // bytes of entries in count and chain already
    fwu_spill spill = {.of = "a large transaction"};
    uint32_t count = 0; // entries
    uint32_t chain = 0; // CRC over their CRC words
    int32_t tag = 0;    // tag of the last entry
};

// Begins anew, the first entry gets first_tag.
void fwu_txn_begin(fwu_txn &txn, int32_t first_tag);

// Spills what is there before an entry of this length that is large itself.  0, or -1 (reported).
int fwu_txn_room(fwu_txn &txn, uint64_t length, const std::string &directory);

// Counts the entry that has just been appended to entries, and spills what is
// too much for memory into a file in directory.  0, or -1 (reported).
int fwu_txn_added(fwu_txn &txn, const std::string &directory);

// Writes all entries at offset of a file that names path in messages.  0, or -1
// (reported); part of them may then stand in the file.
int fwu_txn_write(fwu_txn &txn, int fd, const std::string &path, int64_t offset);

// Releases spill file and memory beyond the usual.
void fwu_txn_end(fwu_txn &txn);

#endif
