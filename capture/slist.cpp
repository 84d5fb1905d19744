// The sorted string-keyed list: two parallel arrays and a binary search.
#include "capture/slist.h"

#include "driver/base/mem.h"

#include <cstdlib>
#include <cstring>

slist *slist_new()
{
    return mem_new<slist>();
}

int32_t slist_findstr(const char *key, int32_t count, char *const *keys)
{
    int32_t low = 0;
    int32_t high = count - 1;
    while (low <= high) {
        const int32_t mid = low + (high - low) / 2;
        if (strcmp(key, keys[mid]) > 0)
            low = mid + 1;
        else
            high = mid - 1;
    }
    return low;
}

void *slist_find(const slist *list, const char *key)
{
    const int32_t i = slist_findstr(key, list->n, list->keys);
    if (i == list->n || strcmp(key, list->keys[i]) != 0)
        return nullptr;
    return list->values[i];
}

void slist_insert(slist *list, const char *key, void *value)
{
    const int32_t at = slist_findstr(key, list->n, list->keys);
    list->keys = mem_grow(list->keys, list->n + 1);
    list->values = mem_grow(list->values, list->n + 1);
    for (int32_t i = list->n; i > at; i--) {
        list->keys[i] = list->keys[i - 1];
        list->values[i] = list->values[i - 1];
    }
    list->keys[at] = mem_strdup(key);
    list->values[at] = value;
    list->n++;
}

void slist_free(slist *list, void (*free_value)(void *))
{
    for (int32_t i = 0; i < list->n; i++) {
        free(list->keys[i]);
        if (free_value != nullptr)
            free_value(list->values[i]);
    }
    free(list->keys);
    free(list->values);
    free(list);
}
