// The program's entry.
#include "capture/capinfo.h"
#include "driver/base/globals.h"
#include "driver/hangup.h"
#include "driver/help.h"
#include "driver/output.h"
#include "driver/process.h"
#include "util/standard_files.h"

#include <cstdio>

static capinfo *init()
{
    init_globals();
    g_ci = new_capinfo();
    return g_ci;
}

// The place for end-of-run clean-up.
static void shut()
{
}

static void pause_for_enter()
{
    printf("Press ENTER to continue...");
    fflush(stdout);
    char line[256];
    (void)!fgets(line, sizeof line, stdin); // whatever comes, or nothing, is as good
}

int main(int argc, char **argv)
{
    hangup_install();
    fill_standard_files();
    if (argc <= 1) {
        printusage(argc == 1 ? argv[0] : "Kestro");
        return 0;
    }
    init();
    int rc = process(argc, argv);
    if (rc != 0)
        printf("ERROR encountered during processing.\n");
    shut();
    if ((g_flags & FLAG_PAUSE) != 0)
        pause_for_enter();
    // Totals and reports that nobody gets are an error too.
    (void)fflush(stdout); // leaves its mark on the stream
    if (output_check() != 0)
        rc = -1;
    return rc != 0 ? 1 : 0;
}
