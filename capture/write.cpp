// Writing log records to the capture files.  Inserts, updates and deletes take
// one way and differ by a row of a table.
#include "capture/write.h"

#include "capture/capinfo.h"
#include "capture/ebmf.h"
#include "capture/format.h"
#include "capture/header.h"
#include "capture/rollover.h"
#include "capture/selection.h"
#include "capture/shared.h"
#include "capture/stats.h"
#include "capture/sync.h"
#include "driver/base/dump.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"
#include "driver/base/logrec.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

// What sets one operation apart from the others.
struct write_kind {
    char op[3];                                 // operation code in the header
    const char *word;                           // the operation in a message
    int stat;                                   // what it is counted as
    int nimages;                                // images in the capture record
    const void *log_record::*image[MAX_IMAGES]; // which, in order
    void (*dump)(const log_record *record);     // -dumprecs
};

static void dump_insert(const log_record *record)
{
    dumprec(record->after_image, record->reclen, "Insert log record length %d (0x%04x) for %s.%s",
            record->reclen, static_cast<unsigned>(record->reclen), logrec_dbname(record),
            logrec_dsetname(record));
}

static void dump_update(const log_record *record)
{
    dumprec(record->before_image, record->reclen,
            "Update log record length %d (0x%04x) (Before) for %s.%s", record->reclen,
            static_cast<unsigned>(record->reclen), logrec_dbname(record), logrec_dsetname(record));
    dumprec(record->after_image, record->reclen,
            "Update log record length %d (0x%04x) (After) for %s.%s", record->reclen,
            static_cast<unsigned>(record->reclen), logrec_dbname(record), logrec_dsetname(record));
}

static void dump_delete(const log_record *record)
{
    dumprec(record->before_image, record->reclen, "Delete log record length %d (0x%04x) for %s.%s",
            record->reclen, static_cast<unsigned>(record->reclen), logrec_dbname(record),
            logrec_dsetname(record));
}

// clang-format off
static const write_kind insert_kind = {
    "IP", "Insert", STAT_INSERT, 1, {&log_record::after_image, nullptr}, dump_insert};
static const write_kind update_kind = {
    "IU", "Update", STAT_UPDATE, 2, {&log_record::before_image, &log_record::after_image}, dump_update};
static const write_kind delete_kind = {
    "ID", "Delete", STAT_DELETE, 1, {&log_record::before_image, nullptr}, dump_delete};
// clang-format on

// The record comes from another library: refuses a length that the format has no
// record for, and an image that is not there.
static int check_record(const capfil *cf, const log_record *record, const record_images &images)
{
    if (cf->format->fits != nullptr && !cf->format->fits(cf, images))
        return set_error_f("Invalid log record length %d for %s.%s", record->reclen,
                           logrec_dbname(record), logrec_dsetname(record));
    for (int i = 0; i < images.n; i++) {
        if (images.reclen > 0 && images.image[i] == nullptr)
            return set_error_f("Log record without its image for %s.%s", logrec_dbname(record),
                               logrec_dsetname(record));
    }
    return 0;
}

// Says what a record that was too long for its file consists of, and what to do about it.
static void tell_too_long(const capfil *cf, const log_record *record, const record_images &images,
                          const write_kind &kind, int32_t length)
{
    const char *dbname = logrec_dbname(record);
    const char *dsetname = logrec_dsetname(record);
    set_error_f("%s of %s.%s makes a record of %d bytes (header %d, images %d x %d), and a %s file "
                "takes %d at most: capture %s:%s into a text file (-ascii), the others into this "
                "one by -dset, and start again; shorter items help later records",
                kind.word, dbname, dsetname, length, cf->hdrsize, images.n, images.reclen,
                cf->format->name, cf->format->longest, dbname, dsetname);
}

static record_images images_of(const log_record *record, const write_kind &kind)
{
    record_images images = {kind.nimages, {}, record->reclen};
    for (int i = 0; i < kind.nimages; i++)
        images.image[i] = record->*kind.image[i];
    return images;
}

// Counts a record for those who ask; length -1: it was not written.
static void count_told(const capfil *cf, const log_record *record, int32_t length)
{
    if (cf->told == nullptr)
        return;
    if (length < 0) {
        cf->told->failures++;
        return;
    }
    cf->told->records++;
    cf->told->bytes += length;
    cf->told->logtime = record->logtime;
}

static int capture_write(capinfo *ci, const log_record *record, const write_kind &kind)
{
    const record_images images = images_of(record, kind);
    int conversion = 0;
    int failed = 0;
    const std::span<capfil *const> taking = select_files(ci, record);
    for (capfil *const cf : taking) {
        if (check_record(cf, record, images) != 0) {
            failed++;
            count_told(cf, record, -1);
            continue;
        }
        if ((g_flags & FLAG_DUMPRECS) != 0)
            kind.dump(record);
        memcpy(cf->op, kind.op, sizeof cf->op);
        cap_header_put(cf, record);

        // Kept: each text file's conversion result replaces the one before it, and a
        // record that did not convert is written all the same.
        const int32_t length = cf->format->build(cf, images, ci->dsets, &conversion);
        const int rc = cap_write_buf(cf, length);
        count_told(cf, record, rc == 0 ? length : -1);
        if (rc != 0) {
            failed++;
            if (cf->format->longest != 0 && length > cf->format->longest && cf->fp != nullptr)
                tell_too_long(cf, record, images, kind, length);
        } else if (cf->stats != nullptr) {
            add_capstat(cf->stats, record, kind.stat);
        }
    }
    if (taking.empty() && ci->skipstats != nullptr)
        add_capstat(ci->skipstats, record, kind.stat);
    if (conversion != 0)
        return conversion;
    return failed != 0 ? -1 : 0;
}

int capture_write_insert(capinfo *ci, const log_record *record)
{
    return capture_write(ci, record, insert_kind);
}

int capture_write_update(capinfo *ci, const log_record *record)
{
    return capture_write(ci, record, update_kind);
}

int capture_write_delete(capinfo *ci, const log_record *record)
{
    return capture_write(ci, record, delete_kind);
}

int cap_write_buf(capfil *cf, int32_t length)
{
    if (cf->fp == nullptr) {
        const int rc = cap_open_capture_file(cf);
        if (rc != 0)
            return rc;
    }
    if ((g_flags & FLAG_DUMPRECS) != 0)
        dumprec(cf->recbuf, length, "Writing capture record length %d (0x%04x) to %s", length,
                static_cast<unsigned>(length), cf->name);

    int rc = ebmf_fwrite(cf->fp, cf->recbuf, length);
    if (rc != 0)
        rc = set_error_emf(cf->fp, "Error writing to capture file: %s", cf->name);
    else
        rc = cap_check_eof(cf);
    // Kept: a failed attempt counts too; the header's sequence number goes on.
    count_one(cf->nwritten);
    return rc;
}

int cap_open_capture_file(capfil *cf)
{
    const int mode = cap_open_mode(cf);
    capture_warn_shared(cf);
    cf->fp = ebmf_fopen(cf->name, mode, cf->ascii_flags);
    if (cf->fp == nullptr)
        return cf->format->open_error(cf->name);
    const int rc = ebmf_getfnum(cf->fp, &cf->fnum);
    if (rc != 0) // of a message file; its handle does not keep the code
        (void)set_error_detail(tmf_strerror(rc), "Error opening message capture file: %s",
                               cf->name); // rc goes up
    capture_sync_soon();
    if (mode == TMF_MODE_ALL_USERS)
        logmsg(LOG_VERBOSE, "Opened capture file %s in shr mode, #%d", cf->name, cf->fnum);
    else
        logmsg(LOG_VERBOSE, "Opened capture file %s, #%d", cf->name, cf->fnum);
    if (rc == 0 && cf->format->limited)
        return check_msg_full(cf);
    return rc;
}

int cap_close_capture_file(capfil *cf)
{
    free(cf->recbuf);
    cf->recbuf = nullptr;
    if (cf->fp != nullptr) {
        const int rc = ebmf_fclose(cf->fp);
        cf->fp = nullptr;
        if (rc != 0)
            return rc;
    }
    if ((g_flags & FLAG_CAPSTATS) == 0)
        printf("%ld records written to capture file %s\n", static_cast<long>(cf->nwritten),
               cf->name);
    logmsg(LOG_VERBOSE, "Closed capture file %s, #%d", cf->name, cf->fnum);
    return 0;
}

int capture_close(capinfo *ci)
{
    if (ci == nullptr)
        return 0;
    int result = 0;
    for (int i = 0; i < ci->ncf; i++) {
        const int rc = cap_close_capture_file(ci->capfiles[i]);
        if (result == 0)
            result = rc;
    }
    free_ci(ci);
    return result;
}
