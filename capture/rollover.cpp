// The size limit of capture files of a format that has one: message files.
#include "capture/rollover.h"

#include "capture/capfil.h"
#include "capture/ebmf.h"
#include "capture/format.h"
#include "capture/rollname.h"
#include "capture/sync.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"

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

int cap_open_mode(const capfil *cf)
{
    return cf->share_mode == 1 ? TMF_MODE_ALL_USERS : 0;
}

// A file past 2 GiB shows a negative end.
static bool within_limit(const capfil *cf, int32_t end)
{
    return end >= 0 && end <= cf->maxbytes;
}

int check_msg_full(capfil *cf)
{
    int32_t end = 0;
    if (ebmf_end(cf->fp, &end) != 0) {
        // Kept: the number shown is 0, not the library's code.
        return set_error_f("Error %d checking capture file EOF on file %s", 0, cf->name);
    }
    if (within_limit(cf, end))
        return 0;
    if (cf->rollover == 0)
        return set_error_f("Capture file %s is full.", cf->name);
    logmsg(LOG_NOTICE, "Capture file %s is full.", cf->name);
    return cap_rollover(cf);
}

int cap_check_eof(capfil *cf)
{
    if (!cf->format->limited)
        return 0;
    int32_t end = 0;
    const int rc = ebmf_record_end(cf->fp, &end);
    if (rc != 0)
        return set_error_f("Error %d getting capture file EOF on file %s", rc, cf->name);
    // Readers have emptied it: the mark that the position has says nothing of it now.
    if (end < cf->synced_end)
        capture_sync_soon();
    if (within_limit(cf, end))
        return 0;
    if (cf->rollover == 0)
        return set_error_f("End of file on capture file %s", cf->name);
    return cap_rollover(cf);
}

int cap_rollover(capfil *cf)
{
    // Closing releases the handle in any case, and with it what it can tell.
    char detail[EBMF_DETAIL_SIZE];
    ebmf_detail(cf->fp, detail);
    const int synced = capture_sync_file(cf);
    int rc = ebmf_fclose(cf->fp);
    cf->fp = nullptr;
    if (synced != 0)
        return synced;
    if (rc != 0)
        return set_error_detail(detail, "Error closing capture file %s for rollover.", cf->name);
    logmsg(LOG_VERBOSE, "Closed capture file %s for rollover.", cf->name);

    char *next = rollover_fname(cf->name);
    if (next == nullptr)
        return set_error_f("Unable to find available rollover file for %s", cf->name);
    free(cf->name);
    cf->name = next;
    cf->name_synced = cf->synced_end = 0;
    capture_sync_soon();
    cf->fp = ebmf_fopen(cf->name, cap_open_mode(cf), cf->ascii_flags);
    if (cf->fp == nullptr) {
        ebmf_open_detail(cf->format, detail);
        return set_error_detail(detail, "Error opening capture file %s for rollover.", cf->name);
    }
    rc = ebmf_getfnum(cf->fp, &cf->fnum);
    if (rc != 0) // of a message file; its handle does not keep the code
        (void)set_error_detail(tmf_strerror(rc), "Error opening capture file %s for rollover.",
                               cf->name); // rc goes up
    logmsg(LOG_NOTICE, "Rolled over to capture file %s", cf->name);
    return rc;
}
