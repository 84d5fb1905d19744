// Each change stands behind its length and its sides.  None has a part of it in the file and
// another one in memory; one that is long goes to the file at once.
#include "feed/postgresql/spool.h"

#include <algorithm>
#include <cstring>

constexpr size_t BLOCK = 1024 * 1024; // read from the file at a time, or a change that is longer

// In front of a change: u64 its length, u8 its sides.
constexpr size_t HEAD_SIZE = 9;
constexpr char OLD_SIDE = 1;
constexpr char FRESH_SIDE = 2;

uint64_t pgi_spool_size(const pgi_spool &spool)
{
    return static_cast<uint64_t>(spool.file.size) + spool.memory.size();
}

static outcome spill(pgi_spool &spool, const std::string &directory)
{
    if (fwu_spill_add(spool.file, directory, spool.memory.data(), spool.memory.size()) != 0)
        return OUTCOME_FAILED;
    spool.memory.clear();
    return {};
}

outcome pgi_spool_add(pgi_spool &spool, const std::string &directory, std::string_view bytes,
                      pgb_sides sides)
{
    const uint64_t length = bytes.size();
    char head[HEAD_SIZE];
    memcpy(head, &length, sizeof length);
    head[sizeof length] =
        static_cast<char>((sides.old ? OLD_SIDE : 0) | (sides.fresh ? FRESH_SIDE : 0));
    if (spool.memory.size() + length > PGI_SPOOL_MEMORY && !spool.memory.empty())
        if (outcome done = spill(spool, directory); !done)
            return done;
    spool.memory.append(head, sizeof head);
    if (length <= PGI_SPOOL_MEMORY) {
        spool.memory += bytes;
        return {};
    }
    outcome done = spill(spool, directory);
    if (done && fwu_spill_add(spool.file, directory, bytes.data(), bytes.size()) != 0)
        return OUTCOME_FAILED;
    return done;
}

// Has so many bytes of the file in block, from at on.
static outcome fetch(pgi_spool_reader &reader, const pgi_spool &spool, size_t length,
                     const std::string &directory)
{
    std::string &block = reader.block;
    if (block.size() - reader.at >= length)
        return {};
    block.erase(0, reader.at);
    reader.at = 0;
    while (block.size() < length) {
        const size_t had = block.size();
        block.resize(std::max(had + BLOCK, length));
        const ssize_t n = fwu_spill_read(spool.file, reader.read, block.data() + had,
                                         block.size() - had, directory);
        block.resize(had + static_cast<size_t>(std::max<ssize_t>(n, 0)));
        if (n < 0)
            return OUTCOME_FAILED;
        reader.read += n;
    }
    return {};
}

static uint64_t take_head(pgb_sides &sides, const char *head)
{
    uint64_t length = 0;
    memcpy(&length, head, sizeof length);
    sides = {.old = (head[sizeof length] & OLD_SIDE) != 0,
             .fresh = (head[sizeof length] & FRESH_SIDE) != 0};
    return length;
}

outcome pgi_spool_next(bool &more, std::string_view &bytes, pgb_sides &sides,
                       pgi_spool_reader &reader, const pgi_spool &spool,
                       const std::string &directory)
{
    more = true;
    if (reader.at < reader.block.size() || reader.read < spool.file.size) {
        outcome done = fetch(reader, spool, HEAD_SIZE, directory);
        if (!done)
            return done;
        const size_t length = take_head(sides, reader.block.data() + reader.at);
        reader.at += HEAD_SIZE;
        done = fetch(reader, spool, length, directory);
        if (done)
            bytes = {reader.block.data() + reader.at, length};
        reader.at += length;
        return done;
    }
    more = reader.in_memory < spool.memory.size();
    if (!more)
        return {};
    const char *const head = spool.memory.data() + reader.in_memory;
    bytes = {head + HEAD_SIZE, take_head(sides, head)};
    reader.in_memory += HEAD_SIZE + bytes.size();
    return {};
}

void pgi_spool_end(pgi_spool &spool)
{
    fwu_spill_end(spool.file);
    std::string().swap(spool.memory);
}
