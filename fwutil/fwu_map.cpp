// Stores into a mapped file.  They reach the page cache at once, so they survive
// this process; a store that the file has no place for raises SIGBUS.
#include "fwutil/fwu_map.h"

#include <atomic>
#include <csetjmp>
#include <cstring>
#include <sys/mman.h>

static sigjmp_buf fault_jump;
static volatile sig_atomic_t storing = 0;
static struct sigaction before = {};

static void on_fault(int)
{
    if (storing != 0)
        siglongjmp(fault_jump, 1);
    // Not ours: the instruction is tried again under the handler before.
    (void)sigaction(SIGBUS, &before, nullptr);
}

fwu_map_faults::fwu_map_faults()
{
    struct sigaction action = {};
    action.sa_handler = on_fault;
    action.sa_flags = SA_NODEFER; // the jump leaves the signal mask as it is
    sigemptyset(&action.sa_mask);
    (void)sigaction(SIGBUS, &action, &before); // fails for no such signal only
}

fwu_map_faults::~fwu_map_faults()
{
    (void)sigaction(SIGBUS, &before, nullptr);
}

bool fwu_map_open(fwu_map &map, int fd, size_t size)
{
    void *at = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    map.at = at == MAP_FAILED ? nullptr : static_cast<char *>(at);
    map.size = size;
    return map.at != nullptr;
}

void fwu_map_close(fwu_map &map)
{
    if (map.at != nullptr)
        munmap(map.at, map.size);
    map.at = nullptr;
}

// The stores in their order: nothing may move one across a fence, and the
// processor keeps the order for what comes after this process.
static void store(char *to, const char *bytes, size_t length, char marker)
{
    *static_cast<volatile char *>(to) = marker;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    memcpy(to + 1, bytes + 1, length - 1);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    *static_cast<volatile char *>(to) = bytes[0];
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

bool fwu_map_replace(const fwu_map &map, size_t offset, const char *bytes, size_t length,
                     char marker)
{
    if (sigsetjmp(fault_jump, 0) != 0) {
        storing = 0;
        return false;
    }
    storing = 1;
    store(map.at + offset, bytes, length, marker);
    storing = 0;
    return true;
}
