// Heap blocks of the plain records.
#include "driver/base/mem.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

static void *checked(void *block, size_t size)
{
    if (block == nullptr && size != 0) {
        fprintf(stderr, "Out of memory: %zu bytes are not to be had.\n", size);
        exit(1);
    }
    return block;
}

void *mem_calloc(size_t count, size_t size)
{
    return checked(calloc(count, size), count * size);
}

void *mem_realloc(void *block, size_t size)
{
    return checked(realloc(block, size), size);
}

char *mem_strdup(const char *text)
{
    if (text == nullptr)
        return nullptr;
    const size_t size = strlen(text) + 1;
    return static_cast<char *>(memcpy(mem_calloc(size, 1), text, size));
}
