// The capture configuration's records: made, filled and released here.
#include "capture/capinfo.h"

#include "capture/dsetpat.h"
#include "capture/format.h"
#include "capture/header.h"
#include "capture/rollover.h"
#include "capture/selection.h"
#include "capture/slist.h"
#include "capture/stats.h"
#include "driver/base/globals.h"
#include "driver/base/mem.h"

#include <cstdlib>
#include <cstring>

capinfo *new_capinfo()
{
    auto *ci = mem_new<capinfo>();
    ci->dsets = new_dsetinfo();
    return ci;
}

int32_t ci_get_ncf(const capinfo *ci)
{
    return ci == nullptr ? 0 : ci->ncf;
}

void init_capcfg(capcfg *cfg)
{
    *cfg = capcfg{};
}

int add_capcfg_dset(capcfg *cfg, const char *pattern)
{
    const int rc = dset_valid(pattern);
    if (rc != 0)
        return rc;
    cfg->dsets = mem_grow(cfg->dsets, cfg->ndsets + 1);
    cfg->dsets[cfg->ndsets] = mem_strdup(pattern);
    cfg->ndsets++;
    return 0;
}

static void free_strings(char **strings, int n)
{
    for (int i = 0; i < n; i++)
        free(strings[i]);
    free(strings);
}

void free_capcfg_data(capcfg *cfg)
{
    free_strings(cfg->dsets, cfg->ndsets);
    cfg->dsets = nullptr;
    cfg->ndsets = 0;
    free(cfg->progterm);
    cfg->progterm = nullptr;
}

capfil *new_capfil()
{
    return mem_new<capfil>();
}

void capfile_init(capfil *cf, const char *name, const capcfg *cfg)
{
    cf->name = mem_strdup(name);
    cf->share_mode = cfg->share_mode;
    cf->ascii_flags = cfg->ascii_flags;
    cf->format = find_format(cf->ascii_flags);
    // Kept: -rollover counts for the files named after it on the command line.
    cf->rollover = cf->format->limited && (g_flags & FLAG_ROLLOVER) != 0 ? 1 : 0;
    cf->maxbytes = get_cap_maxbytes();
    cf->info_item = cfg->info_item;
    cf->progterm = mem_strdup(cfg->progterm);
    cf->hdrsize = cap_setup_header(cf, cfg->hdropts);
    cf->nwritten = 0;
    cf->bufsize = cf->hdrsize + RECBUF_ROOM;
    const auto size = static_cast<size_t>(cf->bufsize);
    cf->recbuf = static_cast<char *>(mem_calloc(size + RECBUF_SPARE, 1));
    memset(cf->recbuf, ' ', size);
    cap_header_put(cf, nullptr);
    cf->npats = cfg->ndsets;
    if (cf->npats != 0) {
        cf->pats = mem_grow<char *>(nullptr, cf->npats);
        for (int i = 0; i < cf->npats; i++)
            cf->pats[i] = copy_dset_parm(cfg->dsets[i]);
    }
}

void add_capfile(capinfo *ci, const char *name, const capcfg *cfg)
{
    capfil *cf = new_capfil();
    capfile_init(cf, name, cfg);
    ci->capfiles = mem_grow(ci->capfiles, ci->ncf + 1);
    ci->capfiles[ci->ncf] = cf;
    ci->ncf++;
}

void free_capfil(capfil *cf)
{
    cap_header_free_items(cf);
    if (cf->stats != nullptr)
        slist_free(cf->stats, free_dbsl);
    free_strings(cf->pats, cf->npats);
    free(cf->name);
    free(cf->progterm);
    free(cf);
}

void free_ci(capinfo *ci)
{
    if (ci == nullptr)
        return;
    for (int i = 0; i < ci->ncf; i++)
        free_capfil(ci->capfiles[i]);
    free(ci->capfiles);
    if (ci->skipstats != nullptr)
        slist_free(ci->skipstats, free_dbsl);
    free_dsetinfo(ci->dsets);
    free_selection(ci->selected);
    free(ci);
}
