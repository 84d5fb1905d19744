// The record buffer.
#include "msgfile/tmf_buffer.h"

#include <cstdlib>

int tmf_grow_record_buffer(tmf_handle *h, int n)
{
    if (h->record_buffer_size >= n)
        return 0;
    unsigned char *buffer = static_cast<unsigned char *>(malloc(static_cast<size_t>(n)));
    if (buffer == nullptr)
        return TMF_EINTERNAL;
    free(h->record_buffer);
    h->record_buffer = buffer;
    h->record_buffer_size = n;
    return 0;
}
