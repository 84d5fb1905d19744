// Reading and comparing positions of fwlog's command line.
#include "tools/fwlog/position.h"

#include <charconv>

static bool take_number(std::string_view &text, int32_t smallest, int32_t &number)
{
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (code != std::errc() || number < smallest)
        return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

bool fwlog_position_parse(fwlog_position &position, std::string_view text)
{
    position = {.given = true};
    if (!take_number(text, 1, position.sequence))
        return false;
    if (text.starts_with('-')) {
        text.remove_prefix(1);
        position.generation = position.sequence;
        if (!take_number(text, 1, position.sequence))
            return false;
    }
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        if (position.generation == 0 || !take_number(text, 0, position.tag))
            return false;
    }
    return text.empty();
}

int fwlog_position_compare(const fwu_log_file &file, int32_t tag, const fwlog_position &position)
{
    if (position.generation != 0 && file.generation != position.generation)
        return file.generation < position.generation ? -1 : 1;
    if (file.sequence != position.sequence)
        return file.sequence < position.sequence ? -1 : 1;
    if (position.tag == 0 || tag == position.tag)
        return 0;
    return tag < position.tag ? -1 : 1;
}
