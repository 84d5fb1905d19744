// Collecting a transaction: what has been spilled stands in front of what is in memory, and nothing
// is changed that was spilled.
#include "fwutil/fwu_txn.h"

#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"

#include <cerrno>
#include <cstring>

constexpr size_t COPY_SIZE = 1024 * 1024;

void fwu_txn_begin(fwu_txn &txn, int32_t first_tag)
{
    fwu_txn_end(txn);
    txn.tag = first_tag - 1;
}

void fwu_txn_end(fwu_txn &txn)
{
    fwu_spill_end(txn.spill);
    std::vector<unsigned char> entries = std::move(txn.entries);
    entries.clear();
    if (entries.capacity() > FWU_TXN_SPILL_SIZE)
        entries.shrink_to_fit();
    txn = fwu_txn();
    txn.entries = std::move(entries);
}

static int spill(fwu_txn &txn, const std::string &directory)
{
    if (fwu_spill_add(txn.spill, directory, txn.entries.data(), txn.entries.size()) != 0)
        return -1;
    txn.entries.clear();
    txn.counted = 0;
    return 0;
}

int fwu_txn_room(fwu_txn &txn, uint64_t length, const std::string &directory)
{
    return length > FWU_TXN_SPILL_SIZE && !txn.entries.empty() ? spill(txn, directory) : 0;
}

int fwu_txn_added(fwu_txn &txn, const std::string &directory)
{
    txn.chain = fwu_crc32c(txn.chain, txn.entries.data() + txn.counted + FWU_ENTRY_CRC_AT,
                           FWU_ENTRY_CRC_SIZE);
    txn.counted = txn.entries.size();
    txn.count++;
    txn.tag++;
    return txn.entries.size() > FWU_TXN_SPILL_SIZE ? spill(txn, directory) : 0;
}

int fwu_txn_write(fwu_txn &txn, int fd, const std::string &path, int64_t offset)
{
    const int64_t spilled = txn.spill.size;
    std::vector<unsigned char> copy(spilled > 0 ? COPY_SIZE : 0);
    for (int64_t at = 0; at < spilled;) {
        const ssize_t n = fwu_spill_read(txn.spill, at, copy.data(), copy.size(), path);
        if (n < 0)
            return -1;
        if (fwu_write_all(fd, copy.data(), static_cast<size_t>(n), offset + at) != 0)
            return fwu_error("%s: cannot write to the log file: %s", path.c_str(), strerror(errno));
        at += n;
    }
    if (fwu_write_all(fd, txn.entries.data(), txn.entries.size(), offset + spilled) != 0)
        return fwu_error("%s: cannot write to the log file: %s", path.c_str(), strerror(errno));
    return 0;
}
