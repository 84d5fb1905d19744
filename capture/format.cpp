// The list of output formats.
#include "capture/format.h"

#include <cstring>

static const cap_format *const formats[] = {&text_format, &message_format};

const cap_format *find_format(uint32_t ascii_flags)
{
    const cap_format *chosen = nullptr;
    for (const cap_format *format : formats) {
        if ((format->chosen_by & ascii_flags) != 0)
            return format;
        if (format->chosen_by == 0)
            chosen = format;
    }
    return chosen;
}

const cap_format *find_format_name(const char *name)
{
    for (const cap_format *format : formats) {
        if (strcmp(format->name, name) == 0)
            return format;
    }
    return nullptr;
}
