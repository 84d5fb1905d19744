// The capture record header.  Every item is rewritten whole for every record,
// so nothing of the record before survives in it.
#include "capture/header.h"

#include "ascii/ascii_digits.h"
#include "capture/capfil.h"
#include "capture/hdrtext.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"
#include "driver/base/logrec.h"
#include "driver/base/mem.h"
#include "driver/base/zone.h"
#include "fwutil/fwutil.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

// Work space of an item whose text has to be built, movefga's bytes included.
using value_buf = char[HDRDATE_SIZE];

// The functions below give an item's text, in the work space or where it is
// already; null for a blank field.

// A number in zero-filled digits, as many as the width at least.
static const char *zero_filled(value_buf &buf, int32_t number, int width)
{
    if (number < 0) {
        snprintf(buf, sizeof buf, "%0*ld", width, static_cast<long>(number));
        return buf;
    }
    constexpr int DIGITS = 15;
    char *const end = buf + DIGITS;
    *end = '\0';
    char *out = digits_before(end, static_cast<uint32_t>(number));
    while (end - out < width)
        *--out = '0';
    return out;
}

static const char *sequence_text(value_buf &buf, const capfil *cf, const log_record *)
{
    return zero_filled(buf, cf->nwritten, 6);
}

static const char *dbname_text(value_buf &, const capfil *, const log_record *record)
{
    return record == nullptr ? nullptr : record->dbname;
}

static const char *dbfga_text(value_buf &buf, const capfil *, const log_record *record)
{
    if (record == nullptr || record->dbname == nullptr)
        return nullptr;
    movefga(buf, record->dbname);
    return buf;
}

static const char *dsetname_text(value_buf &, const capfil *, const log_record *record)
{
    return record == nullptr ? nullptr : record->dsetname;
}

// The date text of one second.  Records come in the order of their times: the
// text made last serves most of them, for as long as the zone's look holds.
struct date_cache {
    bool made;
    int32_t time;
    time_t looked;
    value_buf text;
};

static const char *date_text(date_cache &last, const log_record *record, int yeardigits)
{
    if (record == nullptr)
        return nullptr;
    const time_t looked = zone_look();
    if (!last.made || last.time != record->logtime || last.looked != looked) {
        cap_header_get_date(record->logtime, last.text, yeardigits);
        last.made = true;
        last.time = record->logtime;
        last.looked = looked;
    }
    return last.text;
}

static const char *date4_text(value_buf &, const capfil *, const log_record *record)
{
    static date_cache last;
    return date_text(last, record, 4);
}

static const char *date2_text(value_buf &, const capfil *, const log_record *record)
{
    static date_cache last;
    return date_text(last, record, 2);
}

static const char *op_text(value_buf &, const capfil *cf, const log_record *)
{
    return cf->op;
}

static const char *prog_text(value_buf &buf, const capfil *cf, const log_record *)
{
    const char *pname = Fwu_get_session_entry("pname");
    if (pname == nullptr)
        return nullptr;
    const int width = cap_header_item_size(HDRKIND_PROG);
    if (cf->progterm != nullptr)
        mov_progterm(pname, cf->progterm, buf, width);
    else
        moveprogname(buf, pname, width);
    buf[width] = '\0';
    return buf;
}

static const char *session_text(value_buf &, const capfil *, const log_record *)
{
    return Fwu_get_session_entry("user");
}

static const char *dbuser_text(value_buf &, const capfil *, const log_record *)
{
    return Fwu_get_session_entry("login");
}

static const char *pid_text(value_buf &buf, const capfil *, const log_record *)
{
    const char *pid = Fwu_get_session_entry("pid");
    if (pid == nullptr)
        return nullptr;
    const auto width = static_cast<size_t>(cap_header_item_size(HDRKIND_PID));
    const size_t length = strnlen(pid, width);
    if (length == width)
        return pid;
    memset(buf, '0', width - length);
    buf[0] = ' ';
    memcpy(buf + width - length, pid, length);
    buf[width] = '\0';
    return buf;
}

static const char *recnum_text(value_buf &buf, const capfil *, const log_record *record)
{
    return record == nullptr ? nullptr : zero_filled(buf, record->recnum, 15);
}

// What fills an item, by its kind.
using put_text = const char *(*)(value_buf &buf, const capfil *cf, const log_record *record);

static constexpr put_text texts[HDRKINDS] = {
    // clang-format off
    /* HDRKIND_NONE     */ nullptr,
    /* HDRKIND_SEQUENCE */ sequence_text,
    /* HDRKIND_DBNAME   */ dbname_text,
    /* HDRKIND_DBFGA    */ dbfga_text,
    /* HDRKIND_DSETNAME */ dsetname_text,
    /* HDRKIND_DATE4    */ date4_text,
    /* HDRKIND_DATE2    */ date2_text,
    /* HDRKIND_OP       */ op_text,
    /* HDRKIND_PROG     */ prog_text,
    /* HDRKIND_SESSION  */ session_text,
    /* HDRKIND_DBUSER   */ dbuser_text,
    /* HDRKIND_PID      */ pid_text,
    /* HDRKIND_RECNUM   */ recnum_text,
    // clang-format on
};

int32_t cap_add_header_item(capfil *cf, int *count, int32_t offset, int32_t kind)
{
    auto *item = mem_new<hdritem>();
    item->kind = kind;
    item->offset = offset;
    item->size = cap_header_item_size(kind);
    cf->hdritems = mem_grow(cf->hdritems, *count + 2);
    cf->hdritems[*count] = item;
    cf->hdritems[*count + 1] = nullptr;
    (*count)++;
    return item->size;
}

int32_t cap_setup_header(capfil *cf, uint32_t hdropts)
{
    int count = 0;
    int32_t size = 0;
    const hdrkinds_of kinds = cap_header_kinds(hdropts);
    for (size_t i = 0; i < kinds.n; i++)
        size += cap_add_header_item(cf, &count, size, kinds.kind[i]);

    cf->hdropts = hdropts;
    logmsg(LOG_VERBOSE, "Setup capture file %s header, size=%d", cf->name, size);
    return size;
}

void cap_header_put(capfil *cf, const log_record *record)
{
    if ((g_flags & FLAG_SESSDATA) != 0)
        show_session_data();
    for (hdritem **item = cf->hdritems; *item != nullptr; item++) {
        // Kept: -info DBNAME finds nothing to replace in a header with -fga, nor do
        // the session items without -exthdr.
        if ((*item)->kind == cf->info_item)
            cap_header_put_info(cf, *item);
        else
            cap_header_put_item(cf, *item, record);
    }
}

void cap_header_put_item(capfil *cf, const hdritem *item, const log_record *record)
{
    value_buf buf;
    const char *text = nullptr;
    if (item->kind > HDRKIND_NONE && item->kind < HDRKINDS)
        text = texts[item->kind](buf, cf, record);
    cap_header_put_value(cf, text == nullptr ? "" : text, item);
}

void cap_header_put_info(capfil *cf, const hdritem *item)
{
    const char *info = Fwu_get_session_entry("info");
    cap_header_put_value(cf, info == nullptr ? "" : info, item);
}

void cap_header_put_value(capfil *cf, const char *text, const hdritem *item)
{
    const auto width = static_cast<size_t>(item->size);
    const size_t length = strnlen(text, width);
    char *place = cf->recbuf + item->offset;
    memcpy(place, text, length);
    if (length < width) // most items are full
        memset(place + length, ' ', width - length);
}

void cap_header_get_date(time_t time, char (&out)[HDRDATE_SIZE], int yeardigits)
{
    struct tm tm = {};
    zone_local_time(time, &tm);
    if (yeardigits == 2)
        snprintf(out, sizeof out, "%02d%02d%02d%02d:%02d:%02d", tm.tm_year - 100, tm.tm_mon + 1,
                 tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    else
        snprintf(out, sizeof out, "%04d%02d%02d%02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1,
                 tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

void cap_header_free_items(capfil *cf)
{
    if (cf->hdritems == nullptr)
        return;
    for (hdritem **item = cf->hdritems; *item != nullptr; item++)
        free(*item);
    free(cf->hdritems);
    cf->hdritems = nullptr;
}

void show_session_data()
{
    const int n = Fwu_get_session_elements();
    for (int i = 0; i < n; i++) {
        const char *text = Fwu_get_session_data(i);
        printf("session_data[%d]=%s\n", i, text == nullptr ? "" : text);
    }
}
