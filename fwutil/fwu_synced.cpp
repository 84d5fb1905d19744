// A line for the place, one for the boot, and the program's lines as they are.
#include "fwutil/fwu_synced.h"

#include "fwutil/fwu_status_line.h"

static constexpr std::string_view BOOT_WORD = "boot ";

std::string fwu_synced_put(const fwu_synced &synced)
{
    std::string text = fwu_place_line(synced.place);
    text.append(BOOT_WORD).append(synced.boot).append("\n").append(synced.mark);
    return text;
}

bool fwu_synced_get(fwu_synced &synced, std::string_view text)
{
    synced = fwu_synced();
    if (text.size() > FWU_SYNCED_MAX ||
        !fwu_place_line_get(text.substr(0, FWU_PLACE_LINE_SIZE), synced.place))
        return false;
    text.remove_prefix(FWU_PLACE_LINE_SIZE);
    const size_t end = text.find('\n');
    if (end == text.npos || text.substr(0, BOOT_WORD.size()) != BOOT_WORD)
        return false;
    synced.boot = text.substr(BOOT_WORD.size(), end - BOOT_WORD.size());
    synced.mark = text.substr(end + 1);
    return true;
}
