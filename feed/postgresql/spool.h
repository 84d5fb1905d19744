// Changes of tables that are taken in, which belong behind rows that are not in the log yet: in
// memory, and once they are many in a file without a name in the log directory.
#ifndef FEED_POSTGRESQL_SPOOL_H
#define FEED_POSTGRESQL_SPOOL_H

#include "feed/postgresql/change.h"
#include "fwutil/fwu_spill.h"
#include "util/outcome.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

constexpr size_t PGI_SPOOL_MEMORY = 8 * 1024 * 1024; // bytes kept in memory
constexpr uint64_t PGI_SPOOL_MAX = 1ULL << 30;       // bytes that are taken at all: see the users

struct pgi_spool {
    std::string memory; // behind what is in the file
    fwu_spill file = {.of = "changes that belong behind a table's rows"};
};

struct pgi_spool_reader {
    std::string block;    // of the file
    size_t at = 0;        // in block, what comes next
    int64_t read = 0;     // bytes of the file, up to the end of block
    size_t in_memory = 0; // likewise, of memory
};

// Bytes in it.
uint64_t pgi_spool_size(const pgi_spool &spool);

// Adds a change, by the bytes of its message and the sides that are to be logged; the file is made
// in directory.  OUTCOME_FAILED when it could not be written.
outcome pgi_spool_add(pgi_spool &spool, const std::string &directory, std::string_view bytes,
                      pgb_sides sides);

// The next change, valid until the one behind it is asked for; more is false behind the last one.
outcome pgi_spool_next(bool &more, std::string_view &bytes, pgb_sides &sides,
                       pgi_spool_reader &reader, const pgi_spool &spool,
                       const std::string &directory);

// Forgets all of them.
void pgi_spool_end(pgi_spool &spool);

#endif
