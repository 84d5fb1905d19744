// A small sorted list of values under string keys, in byte order of the keys.
#ifndef CAPTURE_SLIST_H
#define CAPTURE_SLIST_H

#include <cstdint>

struct slist {
    int32_t n;     // number of entries
    char **keys;   // owned; ascending
    void **values; // owned; the value of each key
};

slist *slist_new(); // empty

// Index of the first of count keys that is not less than key.
int32_t slist_findstr(const char *key, int32_t count, char *const *keys);

// The value under the key, or null when there is none.
void *slist_find(const slist *list, const char *key);

// Puts a copy of the key with the value at its place; callers look up first.
void slist_insert(slist *list, const char *key, void *value);

// Releases the list; free_value, when given, releases each value.
void slist_free(slist *list, void (*free_value)(void *));

#endif
