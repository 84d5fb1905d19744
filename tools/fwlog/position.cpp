// A position is a place inside a log or a whole file of it.
#include "tools/fwlog/position.h"

bool fwlog_position_given(const fwu_position &position)
{
    return position.sequence != 0;
}

int fwlog_position_compare(const fwu_log_file &file, int32_t tag, const fwu_position &position)
{
    if (position.generation != 0 && file.generation != position.generation)
        return file.generation < position.generation ? -1 : 1;
    if (file.sequence != position.sequence)
        return file.sequence < position.sequence ? -1 : 1;
    if (position.tag == 0 || tag == position.tag)
        return 0;
    return tag < position.tag ? -1 : 1;
}
