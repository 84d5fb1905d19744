// A file is moved away first and its writer told then: what the writer has in hand goes
// to the file that was moved, what comes next to the one of the name.
#include "capture/reopen.h"

#include "capture/capfil.h"
#include "capture/ebmf.h"
#include "capture/format.h"
#include "capture/sync.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"

#include <sys/stat.h>

// Whether the open file is one that has lost its name.
static bool is_moved(const capfil *cf)
{
    struct stat st = {};
    struct stat named = {};
    if (cf->fp == nullptr || cf->format->reopen == nullptr || fstat(cf->fnum, &st) != 0 ||
        !S_ISREG(st.st_mode))
        return false;
    return stat(cf->name, &named) != 0 || named.st_dev != st.st_dev || named.st_ino != st.st_ino;
}

// 1, 0 or -1 like capture_reopen.
static int reopen(capfil *cf)
{
    if (capture_sync_file(cf) != 0)
        return -1;
    if (!cf->format->reopen(cf->fp, cf->name)) {
        (void)set_error_emf(nullptr,
                            "Error opening ASCII capture file anew: %s; the records go on into "
                            "the file that had this name",
                            cf->name);
        return 0;
    }
    (void)ebmf_getfnum(cf->fp, &cf->fnum); // of a text file: cannot fail
    cf->nsynced = cf->nwritten;
    cf->name_synced = 0;
    logmsg(LOG_VERBOSE, "Opened capture file %s anew, #%d", cf->name, cf->fnum);
    return capture_sync_file(cf) == 0 ? 1 : -1;
}

int capture_reopen(capinfo *ci)
{
    int result = 0;
    for (int i = 0; i < ci->ncf; i++) {
        capfil *cf = ci->capfiles[i];
        const int rc = is_moved(cf) ? reopen(cf) : 0;
        if (rc < 0)
            return rc;
        if (rc > 0)
            result = rc;
    }
    if (result > 0)
        capture_sync_soon();
    return result;
}
