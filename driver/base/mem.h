// Heap blocks of the plain records.  Nobody checks an allocation's result, so
// one that fails ends the program here with a message and exit status 1, like a
// kill: without totals, the record in hand delivered again by the next run.
#ifndef DRIVER_BASE_MEM_H
#define DRIVER_BASE_MEM_H

#include <cstddef>

void *mem_calloc(size_t count, size_t size); // zeroed
void *mem_realloc(void *block, size_t size); // as realloc
char *mem_strdup(const char *text);          // null for null

// Grows a counted array of T to n entries.
template <typename T> T *mem_grow(T *array, int n)
{
    return static_cast<T *>(mem_realloc(array, static_cast<size_t>(n) * sizeof(T)));
}

template <typename T> T *mem_new()
{
    return static_cast<T *>(mem_calloc(1, sizeof(T)));
}

#endif
