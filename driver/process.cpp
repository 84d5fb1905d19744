// One run.  After an error in the command line the informational actions, the
// reports and the closing of what was opened still take place.
#include "driver/process.h"

#include "capture/capinfo.h"
#include "capture/report.h"
#include "capture/slist.h"
#include "capture/stats.h"
#include "capture/write.h"
#include "driver/base/globals.h"
#include "driver/base/log.h"
#include "driver/help.h"
#include "driver/options.h"
#include "driver/run_state.h"
#include "driver/session.h"
#include "fwutil/fwutil.h"

#include <cstdio>

static bool flag(uint32_t bit)
{
    return (g_flags & bit) != 0;
}

// A session has something to do: a capture file to fill or records to count.
static bool has_target()
{
    return ci_get_ncf(g_ci) > 0 || flag(FLAG_SHOWSKIP);
}

static int run_session(const run_options &run)
{
    if (!has_target())
        return set_error("No capture file specified.");
    return processfile(g_ci, run.words[RUN_PIDFILE], run.words[RUN_CFG], run.words[RUN_STAT],
                       run.words[RUN_START]);
}

// The one action of the run, in order of precedence.
static int run_action(const run_options &run, const char *progname, int rc)
{
    if (flag(FLAG_VERSION)) {
        print_banner();
        fflush(stdout); // the library may print by other means
        Fwu_version();
    } else if (flag(FLAG_VERSNUM)) {
        printf("%s\n", PROGRAM_VERSION);
    } else if (flag(FLAG_HELP)) {
        show_help(progname);
    } else if (flag(FLAG_SHOWSTAT)) {
        Fwu_status(run.words[RUN_STAT], flag(FLAG_VERBOSE) ? 1 : 0);
    } else if (rc == 0) {
        rc = run_session(run);
    }
    return rc;
}

static void show_totals()
{
    printf("%ld Vostrel forward log file records processed.\n", static_cast<long>(g_nlogrecs));
    if (flag(FLAG_VERBOSE))
        printf("Current position=%s\n", get_fwlog_gst());
}

int process(int argc, char **argv)
{
    run_options run = {};
    int rc = scan_options(argc, argv, &run);

    if (flag(FLAG_CAPSTATS))
        init_capstats(g_ci);
    if (flag(FLAG_SHOWSKIP))
        g_ci->skipstats = slist_new();

    rc = run_action(run, argv[0], rc);
    if (rc == 0 && has_target())
        show_totals();

    if (flag(FLAG_CAPSTATS))
        show_capstats(g_ci);
    if (flag(FLAG_SHOWSKIP))
        show_skipped(g_ci);
    run_state_closing();
    const int close_rc = capture_close(g_ci);
    g_ci = nullptr;
    if (rc == 0)
        rc = close_rc;
    run_state_end(rc != 0);

    free_run_options(&run);
    return rc;
}
