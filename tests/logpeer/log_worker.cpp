// A user of forward logs, built for other machines and word sizes too: it uses the log's library
// and the language's own, nothing else.
//
//   log_worker write CONFIG FIRST COUNT    appends transactions, on disk and acknowledged at the
//   end log_worker leave CONFIG FIRST COUNT    the same, and is killed before they are acknowledged
//   log_worker read CONFIG STATUS COUNT    prints records from the position in STATUS on, all when
//   0
//
// What it writes follows from the number of the transaction.  Images hold numbers in the byte order
// of the configuration.
#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

static int left; // records to print; negative: all

// Bytes with the sign of char gone, whatever this machine's is.
static void print_hex(const char *name, const void *bytes, size_t size)
{
    printf(" %s=", name);
    for (size_t i = 0; bytes != nullptr && i < size; i++)
        printf("%02x", static_cast<const unsigned char *>(bytes)[i]);
}

static void print_text(const char *name, const char *text)
{
    printf(" %s=%s", name, text == nullptr ? "(none)" : text);
}

static int print_record(uint32_t /*reserved*/, const char *dbname, const char *dsetname,
                        int32_t logtime, int32_t opcode, int32_t recnum, int32_t reclen,
                        const void *before, const void *after)
{
    if (left == 0)
        return 1;
    if (left > 0)
        left--;
    printf("%d-%d.%d %s.%s time %d op %d record %d", Fwu_CurrentLogGeneration(),
           Fwu_CurrentLogSequence(), Fwu_CurrentTagSequence(), dbname, dsetname, logtime, opcode,
           recnum);
    print_hex("before", before, static_cast<size_t>(reclen));
    print_hex("after", after, static_cast<size_t>(reclen));
    const char *name = nullptr;
    int32_t type = 0;
    int32_t size = 0;
    int32_t count = 0;
    int32_t aux = 0;
    while (Fwu_get_item(&name, &type, &size, &count, &aux) != 0)
        printf(" %s/%c/%d/%d/%d", name, type, size, count, aux);
    for (const char *key : {"pname", "user", "login", "pid", "info"})
        print_text(key, Fwu_get_session_entry(key));
    for (int i = 0; i < Fwu_get_session_elements(); i++)
        print_text("data", Fwu_get_session_data(i));
    printf("\n");
    return 0;
}

// NUMBER as eight bytes of the order, then a text.
static std::string image(uint64_t number, size_t size, bool big_endian)
{
    std::string bytes(size, static_cast<char>('a' + number % 26));
    for (unsigned i = 0; i < 8; i++)
        bytes[big_endian ? 7 - i : i] = static_cast<char>(number >> 8 * i & 0xFF);
    bytes[8] = '\xFE';
    return bytes;
}

static int fill(fwu_writer *writer, const fwu_config &config, uint64_t n)
{
    fwu_session session;
    session.pname = "order entry";
    session.user = "ANNA";
    session.pid = std::to_string(4000000000U + n);
    if (fwu_writer_begin(writer, n % 3 == 0 ? &session : nullptr) != 0)
        return -1;
    for (const fwu_dataset &dataset : config.datasets) {
        size_t size = 0;
        for (const fwu_item &item : dataset.layout.items)
            size += static_cast<size_t>(item.size) * static_cast<size_t>(item.count);
        const std::string before = image(n * 0x0102030405ULL, size, config.big_endian);
        const std::string after = image(n * 0x0102030405ULL + 1, size, config.big_endian);
        const auto length = static_cast<int32_t>(size);
        const int64_t logtime = 1700000000 + static_cast<int64_t>(n);
        if (fwu_writer_record(writer, FWU_OP_INSERT, dataset.layout, logtime, length, nullptr,
                              before.data()) != 0 ||
            fwu_writer_record(writer, FWU_OP_UPDATE, dataset.layout, logtime, length, before.data(),
                              after.data()) != 0 ||
            fwu_writer_record(writer, FWU_OP_DELETE, dataset.layout, logtime, length, after.data(),
                              nullptr) != 0)
            return -1;
    }
    return 0;
}

static int write_log(const fwu_config &config, uint64_t first, uint64_t count, bool leaves)
{
    fwu_writer *writer = nullptr;
    if (fwu_writer_open(&writer, config) != 0)
        return -1;
    printf("behind %llu\n", static_cast<unsigned long long>(fwu_writer_last_lsn(writer)));
    for (uint64_t n = first; n < first + count; n++) {
        // In 2049: 32 bits of seconds do not hold it.
        const fwu_commit commit = {.time_us = 2500000000000000 + static_cast<int64_t>(n) * 1000001,
                                   .xid = static_cast<uint32_t>(4000000000U + n),
                                   .lsn = n << 33};
        if (fill(writer, config, n) != 0 || fwu_writer_commit(writer, commit) != 0)
            return -1;
    }
    if (leaves) {
        (void)fflush(stdout);
        (void)raise(SIGKILL);
    }
    return fwu_writer_acknowledge(writer) == 0 ? fwu_writer_close(writer) : -1;
}

int main(int argc, char **argv)
{
    const std::string what = argc > 1 ? argv[1] : "";
    fwu_config config;
    if (argc != 5 || fwu_config_read(config, argv[2]) != 0)
        return 2;
    if (what == "read") {
        left = atoi(argv[4]) == 0 ? -1 : atoi(argv[4]);
        const bool all = left < 0;
        Fwu_synconly(1);
        return (Fwu_process(print_record, argv[2], argv[3], nullptr) == 0) == all ? 0 : 1;
    }
    return write_log(config, strtoull(argv[3], nullptr, 10), strtoull(argv[4], nullptr, 10),
                     what == "leave") == 0
               ? 0
               : 1;
}
