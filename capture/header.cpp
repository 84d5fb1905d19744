// The capture record header.  Every item is rewritten whole for every record,
// so nothing of the record before survives in it.
#include "capture/header.h"

#include "capture/capinfo.h"
#include "capture/hdrtext.h"
#include "driver/globals.h"
#include "driver/log.h"
#include "driver/logrec.h"
#include "driver/mem.h"
#include "fwutil/fwutil.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

// Room for the text of any item, movefga's bytes included.
constexpr int VALUE_SIZE = HDRDATE_SIZE;

using value_buf = char[VALUE_SIZE];

static void put_sequence(value_buf &out, const capfil *cf, const log_record *)
{
    snprintf(out, sizeof out, "%06ld", static_cast<long>(cf->nwritten));
}

static void put_dbname(value_buf &out, const capfil *, const log_record *record)
{
    if (record != nullptr)
        strmcpy(out, logrec_dbname(record), sizeof out);
}

static void put_dbfga(value_buf &out, const capfil *, const log_record *record)
{
    if (record != nullptr && record->dbname != nullptr)
        movefga(out, record->dbname);
}

static void put_dsetname(value_buf &out, const capfil *, const log_record *record)
{
    if (record != nullptr)
        strmcpy(out, logrec_dsetname(record), sizeof out);
}

static void put_date4(value_buf &out, const capfil *, const log_record *record)
{
    if (record != nullptr)
        cap_header_get_date(record->logtime, out, 4);
}

static void put_date2(value_buf &out, const capfil *, const log_record *record)
{
    if (record != nullptr)
        cap_header_get_date(record->logtime, out, 2);
}

static void put_op(value_buf &out, const capfil *cf, const log_record *)
{
    memcpy(out, cf->op, 2);
}

static void put_prog(value_buf &out, const capfil *cf, const log_record *)
{
    const char *pname = Fwu_get_session_entry("pname");
    if (pname == nullptr)
        return;
    const int width = cap_header_item_size(HDRKIND_PROG);
    if (cf->progterm != nullptr)
        mov_progterm(pname, cf->progterm, out, width);
    else
        moveprogname(out, pname, width);
}

static void put_entry(value_buf &out, const char *key)
{
    const char *entry = Fwu_get_session_entry(key);
    if (entry != nullptr)
        strmcpy(out, entry, sizeof out);
}

static void put_session(value_buf &out, const capfil *, const log_record *)
{
    put_entry(out, "user");
}

static void put_dbuser(value_buf &out, const capfil *, const log_record *)
{
    put_entry(out, "login");
}

static void put_pid(value_buf &out, const capfil *, const log_record *)
{
    const char *pid = Fwu_get_session_entry("pid");
    if (pid == nullptr)
        return;
    const auto width = static_cast<size_t>(cap_header_item_size(HDRKIND_PID));
    const size_t length = strnlen(pid, width);
    if (length < width) {
        memset(out, '0', width - length);
        out[0] = ' ';
    }
    memcpy(out + width - length, pid, length);
}

static void put_recnum(value_buf &out, const capfil *, const log_record *record)
{
    if (record != nullptr)
        snprintf(out, sizeof out, "%015ld", static_cast<long>(record->recnum));
}

// What an item kind is: its width and what fills it.
struct hdrkind_row {
    int32_t width;
    void (*put)(value_buf &out, const capfil *cf, const log_record *record);
};

static const hdrkind_row hdrkinds[HDRKINDS] = {
    // clang-format off
    /* HDRKIND_NONE     */ {0,  nullptr},
    /* HDRKIND_SEQUENCE */ {6,  put_sequence},
    /* HDRKIND_DBNAME   */ {24, put_dbname},
    /* HDRKIND_DBFGA    */ {24, put_dbfga},
    /* HDRKIND_DSETNAME */ {16, put_dsetname},
    /* HDRKIND_DATE4    */ {16, put_date4},
    /* HDRKIND_DATE2    */ {14, put_date2},
    /* HDRKIND_OP       */ {2,  put_op},
    /* HDRKIND_PROG     */ {24, put_prog},
    /* HDRKIND_SESSION  */ {8,  put_session},
    /* HDRKIND_DBUSER   */ {24, put_dbuser},
    /* HDRKIND_PID      */ {6,  put_pid},
    /* HDRKIND_RECNUM   */ {15, put_recnum},
    // clang-format on
};

int32_t cap_header_item_size(int32_t kind)
{
    return kind < 0 || kind >= HDRKINDS ? 0 : hdrkinds[kind].width;
}

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
    const auto add = [&](int32_t kind) { size += cap_add_header_item(cf, &count, size, kind); };

    add(HDRKIND_SEQUENCE);
    add((hdropts & HDR_FGA) != 0 ? HDRKIND_DBFGA : HDRKIND_DBNAME);
    add(HDRKIND_DSETNAME);
    add((hdropts & HDR_YYYY) != 0 ? HDRKIND_DATE4 : HDRKIND_DATE2);
    add(HDRKIND_OP);
    if ((hdropts & HDR_EXTHDR) != 0) {
        add(HDRKIND_PROG);
        add(HDRKIND_SESSION);
        add(HDRKIND_DBUSER);
        add(HDRKIND_PID);
    }
    if ((hdropts & HDR_RECNUM) != 0)
        add(HDRKIND_RECNUM);

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
    value_buf value = {};
    if (item->kind > HDRKIND_NONE && item->kind < HDRKINDS)
        hdrkinds[item->kind].put(value, cf, record);
    cap_header_put_value(cf, value, item);
}

void cap_header_put_info(capfil *cf, const hdritem *item)
{
    value_buf value = {};
    put_entry(value, "info");
    cap_header_put_value(cf, value, item);
}

void cap_header_put_value(capfil *cf, const char *text, const hdritem *item)
{
    const auto width = static_cast<size_t>(item->size);
    const size_t length = strnlen(text, width);
    char *place = cf->recbuf + item->offset;
    memcpy(place, text, length);
    memset(place + length, ' ', width - length);
}

void cap_header_get_date(time_t time, char (&out)[HDRDATE_SIZE], int yeardigits)
{
    struct tm tm = {};
    localtime_r(&time, &tm);
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
