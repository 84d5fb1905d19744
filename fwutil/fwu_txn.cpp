// Collecting a transaction.  The spill file has no name, so nothing is left
// behind whatever happens to the writer.
#include "fwutil/fwu_txn.h"

#include "fwutil/fwu_crc32c.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

constexpr size_t COPY_SIZE = 1024 * 1024;

void fwu_txn_begin(fwu_txn &txn, int32_t first_tag)
{
    fwu_txn_end(txn);
    txn.tag = first_tag - 1;
}

void fwu_txn_end(fwu_txn &txn)
{
    if (txn.spill_fd >= 0)
        close(txn.spill_fd);
    std::vector<unsigned char> entries = std::move(txn.entries);
    entries.clear();
    if (entries.capacity() > FWU_TXN_SPILL_SIZE)
        entries.shrink_to_fit();
    txn = fwu_txn();
    txn.entries = std::move(entries);
}

static int spill(fwu_txn &txn, const std::string &directory)
{
    if (txn.spill_fd < 0) {
        std::string name = directory + "/spill-XXXXXX";
        txn.spill_fd = mkostemp(name.data(), 0);
        if (txn.spill_fd < 0)
            return fwu_error("%s: cannot create a spill file for a large transaction: %s",
                             name.c_str(), strerror(errno));
        (void)unlink(name.c_str()); // a name left behind does no harm
    }
    if (fwu_write_all(txn.spill_fd, txn.entries.data(), txn.entries.size(), txn.spilled) != 0)
        return fwu_error("%s: cannot write to the spill file of a large transaction: %s",
                         directory.c_str(), strerror(errno));
    txn.spilled += static_cast<int64_t>(txn.entries.size());
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
    std::vector<unsigned char> copy(txn.spilled > 0 ? COPY_SIZE : 0);
    for (int64_t at = 0; at < txn.spilled;) {
        const ssize_t n = pread(txn.spill_fd, copy.data(), copy.size(), at);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return fwu_error("%s: cannot read back the spill file of a large transaction: %s",
                             path.c_str(), n < 0 ? strerror(errno) : "it has become shorter");
        if (fwu_write_all(fd, copy.data(), static_cast<size_t>(n), offset + at) != 0)
            return fwu_error("%s: cannot write to the log file: %s", path.c_str(), strerror(errno));
        at += n;
    }
    if (fwu_write_all(fd, txn.entries.data(), txn.entries.size(), offset + txn.spilled) != 0)
        return fwu_error("%s: cannot write to the log file: %s", path.c_str(), strerror(errno));
    return 0;
}
