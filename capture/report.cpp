// The statistics reports.  Both print the same block for a database; what
// totals they print differs on purpose.
#include "capture/report.h"

#include "capture/capfil.h"
#include "capture/hdrtext.h"
#include "capture/slist.h"
#include "capture/stats.h"
#include "driver/base/log.h"

#include <cstdio>
#include <cstring>

constexpr int DBNAME_SHOWN = 24; // characters of a database name in a report

struct totals {
    int inserts = 0;
    int updates = 0;
    int deletes = 0;
};

// Sums of 32-bit counters, which like them start again at the other end.
static int add(int a, int b)
{
    return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
}

static void add_totals(totals &sum, const totals &part)
{
    sum.inserts = add(sum.inserts, part.inserts);
    sum.updates = add(sum.updates, part.updates);
    sum.deletes = add(sum.deletes, part.deletes);
}

static int all(const totals &t)
{
    return add(add(t.inserts, t.updates), t.deletes);
}

const char *hdroptsstr(uint32_t hdropts)
{
    static const struct {
        uint32_t bit;
        const char *name;
    } names[] = {
        {HDR_YYYY, "YYYY"}, {HDR_EXTHDR, "EXTHDR"}, {HDR_RECNUM, "RECNUM"}, {HDR_FGA, "FGA"}};
    static char text[sizeof "YYYY, EXTHDR, RECNUM, FGA"];

    text[0] = '\0';
    for (const auto &option : names) {
        if ((hdropts & option.bit) == 0)
            continue;
        if (text[0] != '\0')
            strcat(text, ", ");
        strcat(text, option.name);
    }
    return text;
}

// Prints one database's heading, datasets and, for more than one, their total;
// returns its sums.
static totals show_database(const char *dbname, const slist *sets, bool fga)
{
    char shown[FGADOTS_SIZE];
    if (fga)
        movefgadots(shown, dbname);
    else
        strmcpy(shown, dbname, DBNAME_SHOWN + 1);
    printf("\n    Database %-26s %8s %8s %8s %8s\n", shown, "Inserts", "Updates", "Deletes",
           "Total");

    totals sum;
    for (int i = 0; i < sets->n; i++) {
        const auto *set = static_cast<const setstats *>(sets->values[i]);
        const totals t{set->inserts, set->updates, set->deletes};
        printf("      %-26s        %8d %8d %8d %8d\n", sets->keys[i], t.inserts, t.updates,
               t.deletes, all(t));
        add_totals(sum, t);
    }
    if (sets->n > 1)
        printf("\n      %-26s        %8d %8d %8d %8d\n", "*Database total*", sum.inserts,
               sum.updates, sum.deletes, all(sum));
    return sum;
}

static totals show_databases(const slist *stats, bool fga)
{
    totals sum;
    for (int i = 0; i < stats->n; i++)
        add_totals(
            sum, show_database(stats->keys[i], static_cast<const slist *>(stats->values[i]), fga));
    return sum;
}

static void show_list_total(const char *title, const totals &sum)
{
    printf("\n    %-26s          %8d %8d %8d %8d\n", title, sum.inserts, sum.updates, sum.deletes,
           all(sum));
}

static totals show_capfile(const capfil *cf)
{
    printf("\n  Capture file: %s\n", cf->name);
    if (cf->hdropts != 0)
        printf("    Capture file options: %s\n", hdroptsstr(cf->hdropts));
    for (int i = 0; i < cf->npats; i++) {
        if (i == 0)
            printf("    Capture file -dset  : %s\n", cf->pats[i]);
        else
            printf("                          %s\n", cf->pats[i]);
    }
    const totals sum = show_databases(cf->stats, (cf->hdropts & HDR_FGA) != 0);
    // Kept: a file that selected nothing shows its total of zeros too.
    if (cf->stats->n != 1)
        show_list_total("*Capture file total*", sum);
    return sum;
}

void show_capstats(const capinfo *ci)
{
    printf("\nNumber of records written to capture files:\n");
    totals sum;
    for (int i = 0; i < ci->ncf; i++)
        add_totals(sum, show_capfile(ci->capfiles[i]));
    if (ci->ncf >= 2)
        printf("\n  %-32s      %8d %8d %8d %8d\n", "*Total for all capture files*", sum.inserts,
               sum.updates, sum.deletes, all(sum));
    printf("\n");
}

void show_skipped(const capinfo *ci)
{
    printf("\nLog records not copied to any capture file:\n");
    const totals sum = show_databases(ci->skipstats, false);
    if (ci->skipstats->n == 0)
        printf("\n    * No records skipped.  All records copied to a capture file.\n");
    else if (ci->skipstats->n > 1)
        show_list_total("*Total skipped records*", sum);
    printf("\n");
}
