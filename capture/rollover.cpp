// The size limit of message capture files.
#include "capture/rollover.h"

#include "driver/globals.h"
#include "driver/log.h"

#include <cstdlib>
#include <limits>

constexpr int32_t CAP_MAXBYTES_DEFAULT = 0x7FFF0000;

int32_t get_cap_maxbytes()
{
    int32_t limit = CAP_MAXBYTES_DEFAULT;
    const char *text = getenv("KESTRO_MAXCAP");
    if (text != nullptr) {
        // strtol's long is wider than the limit; larger values give the largest limit.
        const long value = strtol(text, nullptr, 10);
        constexpr long largest = std::numeric_limits<int32_t>::max();
        if (value > 0)
            limit = static_cast<int32_t>(value < largest ? value : largest);
    }
    logmsg(LOG_VERBOSE, "Capture file maximum size is %ld bytes.", static_cast<long>(limit));
    return limit;
}
