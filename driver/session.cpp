// The capture session.  One thread: the callback runs inside Fwu_process,
// between the library's reads of the log.
#include "driver/session.h"

#include "capture/capinfo.h"
#include "capture/copyname.h"
#include "capture/reopen.h"
#include "capture/settings.h"
#include "capture/shared.h"
#include "capture/sync.h"
#include "capture/write.h"
#include "driver/base/dsetinfo.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"
#include "driver/base/logrec.h"
#include "driver/hangup.h"
#include "driver/output.h"
#include "driver/own_files.h"
#include "driver/run_state.h"
#include "fwutil/fwutil.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

static void go_to_background()
{
    // What is still in a stdio buffer would be printed by both processes.
    fflush(nullptr);
    // Kept: a failed fork ends the program like a parent, with status 0.
    if (fork() != 0)
        exit(0);
    hangup_detach();
}

int processfile(capinfo *ci, const char *pidfile, const char *cfgfile, const char *statfile,
                const char *startspec)
{
    // Before the shell has its answer, the PID file and anything else.
    int rc = own_files_check(ci, pidfile, cfgfile, statfile);
    if (rc == 0)
        rc = run_state_begin(ci, pidfile, cfgfile, statfile);
    if (rc != 0)
        return rc;
    run_state_start();
    rc = read_capture_settings();
    if (rc == 0)
        rc = capture_check_names(ci);
    if (rc != 0)
        return rc;
    capture_warn_twice(ci);
    if ((g_flags & FLAG_BG) != 0) {
        go_to_background();
        run_state_start();
    }
    if (pidfile != nullptr) {
        rc = write_pidfile(pidfile);
        if (rc != 0)
            return rc;
    }
    // A pipe without a reader and a file at its size limit are write errors of the
    // record, not the end of the process.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);

    g_ci = ci;
    if ((g_flags & FLAG_VERBOSE) != 0)
        Fwu_verbose(1);
    if ((g_flags & FLAG_SYNCONLY) != 0)
        Fwu_synconly(1);
    capture_sync_begin();
    rc = Fwu_process(kestro_cb, cfgfile, statfile, startspec);
    const int synced = capture_sync_end(g_ci);
    if (rc != 0)
        return set_error(PROCESS_FAILED);
    return synced;
}

// Opens the text files anew when that was asked for.  1: done, 0: nothing to do, -1:
// failed (reported).
static int heed_hangup()
{
    return hangup_taken() ? capture_reopen(g_ci) : 0;
}

// What the forward-log library asks of a program that defines these.

extern "C" int Fwu_hook_sync_due(int when)
{
    return capture_sync_due(when);
}

extern "C" const char *Fwu_hook_sync(void)
{
    return capture_sync(g_ci);
}

extern "C" int Fwu_hook_resume(const char *mark)
{
    return capture_resume(mark);
}

extern "C" int Fwu_hook_keep(const char *mark)
{
    return capture_keep(mark);
}

extern "C" void Fwu_hook_look(int what, const char *text)
{
    run_state_look(what, text);
}

extern "C" int Fwu_hook_wait(void)
{
    return heed_hangup();
}

int write_pidfile(const char *path)
{
    FILE *fp = fopen(path, "we");
    if (fp == nullptr)
        return set_error_f("Error opening pidfile %s: %s", path, strerror(errno));
    logmsg(LOG_VERBOSE, "Opened pid file %s, #%d", path, fileno(fp));
    int rc = 0;
    // The flush belongs to the write: without it a full disk would go unseen.
    if (fprintf(fp, "%ld\n", static_cast<long>(getpid())) < 0 || fflush(fp) != 0)
        rc = set_error_f("Error writing to pidfile %s: %m", path);
    logmsg(LOG_VERBOSE, "Closed pid file %s, #%d", path, fileno(fp));
    fclose(fp);
    return rc;
}

void show_sets(const capinfo *ci, const log_record *record)
{
    const dsetinfo *info = ci->dsets;
    printf("***** Dataset %s.%s has %d items\n", logrec_dbname(record), logrec_dsetname(record),
           info->nitems);
    for (int i = 0; i < info->nitems; i++) {
        const dsetitem *item = info->items[i];
        printf("    %-16s %c%3d%3d\n", item->name, item->type, item->size, item->count);
    }
}

static int dispatch(const log_record *record)
{
    switch (record->opcode) {
    case OP_UPDATE:
        return capture_write_update(g_ci, record);
    case OP_INSERT:
        return capture_write_insert(g_ci, record);
    case OP_DELETE:
        return capture_write_delete(g_ci, record);
    default:
        // Kept: the message ends its line itself, so an empty line follows it.
        return set_error_f("Unrecognized operation: #%d\n", record->opcode);
    }
}

extern "C" int kestro_cb(uint32_t reserved, const char *dbname, const char *dsetname,
                         int32_t logtime, int32_t opcode, int32_t recnum, int32_t reclen,
                         const void *before_image, const void *after_image)
{
    const log_record record = {reserved, dbname, dsetname,     logtime,    opcode,
                               recnum,   reclen, before_image, after_image};
    // The capture goes on without what is shown of it; the run's result tells.
    (void)output_check();
    // A library that forces its position itself does so behind a record, and only then may
    // the next one go into a new file.
    const bool asked = capture_sync_asked();
    if (!asked && heed_hangup() < 0)
        return -1;
    // For every record: nothing says that a dataset's layout stays as it is.
    if (g_needsetinfo != 0)
        get_dsetinfo(g_ci->dsets);
    if ((g_flags & FLAG_SHOWSETS) != 0)
        show_sets(g_ci, &record);
    if (dispatch(&record) != 0 || capture_sync_record(g_ci) != 0)
        return -1;
    if (asked && heed_hangup() < 0)
        return -1;
    run_state_record();
    count_one(g_nlogrecs);
    return 0;
}

const char *get_fwlog_gst()
{
    static char text[64];
    const int generation = Fwu_CurrentLogGeneration();
    const int sequence = Fwu_CurrentLogSequence();
    const int tag = Fwu_CurrentTagSequence();
    snprintf(text, sizeof text, "%d-%d.%d", generation, sequence, tag);
    return text;
}
