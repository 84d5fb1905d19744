// The item layout of the current record's dataset.
#include "driver/base/dsetinfo.h"

#include "driver/base/mem.h"
#include "fwutil/fwutil.h"

#include <cstdlib>

dsetinfo *new_dsetinfo()
{
    return mem_new<dsetinfo>();
}

void free_dsetinfo(dsetinfo *info)
{
    if (info == nullptr)
        return;
    for (int i = 0; i < info->nalloc; i++)
        free(info->items[i]);
    free(info->items);
    free(info);
}

// Copies at most DSETITEM_NAME_MAX characters; what a longer name left behind them
// becomes zero.  Names are short, so a loop is quicker than the library's routines.
static void copy_name(char *dst, const char *name)
{
    int n = 0;
    for (; n < DSETITEM_NAME_MAX && name[n] != '\0'; n++)
        dst[n] = name[n];
    for (; dst[n] != '\0'; n++)
        dst[n] = '\0';
}

void get_dsetinfo(dsetinfo *info)
{
    int32_t n = 0;
    for (;; n++) {
        // The call that finds no more items may write into the descriptor too, so
        // there is always one past the last item.
        if (n == info->nalloc) {
            info->items = mem_grow(info->items, n + 1);
            info->items[n] = mem_new<dsetitem>();
            info->nalloc++;
        }
        dsetitem *item = info->items[n];
        const char *name = nullptr;
        if (Fwu_get_item(&name, &item->type, &item->size, &item->count, &item->item_aux) == 0)
            break;
        copy_name(item->name, name == nullptr ? "" : name);
    }
    info->nitems = n;
}
