// Counting records by database and dataset.
#include "capture/stats.h"

#include "capture/capfil.h"
#include "capture/slist.h"
#include "driver/base/globals.h"
#include "driver/base/logrec.h"
#include "driver/base/mem.h"

#include <cstdlib>

setstats *new_setstats()
{
    return mem_new<setstats>();
}

void add_capstat(slist *stats, const log_record *record, int code)
{
    const char *dbname = logrec_dbname(record);
    const char *dsetname = logrec_dsetname(record);
    auto *db = static_cast<slist *>(slist_find(stats, dbname));
    if (db == nullptr) {
        db = slist_new();
        slist_insert(stats, dbname, db);
    }
    auto *set = static_cast<setstats *>(slist_find(db, dsetname));
    if (set == nullptr) {
        set = new_setstats();
        slist_insert(db, dsetname, set);
    }
    switch (code) {
    case STAT_INSERT:
        count_one(set->inserts);
        break;
    case STAT_UPDATE:
        count_one(set->updates);
        break;
    case STAT_DELETE:
        count_one(set->deletes);
        break;
    default:
        break;
    }
}

void init_capstats(capinfo *ci)
{
    for (int i = 0; i < ci->ncf; i++)
        ci->capfiles[i]->stats = slist_new();
}

void free_setstats(void *stats)
{
    free(stats);
}

void free_dbsl(void *dbsl)
{
    slist_free(static_cast<slist *>(dbsl), free_setstats);
}
