// A position is written as its two halves, each as short as it can be.
#include "feed/lsn.h"

#include "fwutil/fwu_start.h"

#include <charconv>

bool feed_lsn_parse(uint64_t &lsn, std::string_view text)
{
    uint32_t high = 0;
    uint32_t low = 0;
    const char *const end = text.data() + text.size();
    const auto [slash, code] = std::from_chars(text.data(), end, high, 16);
    if (code != std::errc() || slash == end || *slash != '/')
        return false;
    const auto [rest, low_code] = std::from_chars(slash + 1, end, low, 16);
    if (low_code != std::errc() || rest != end)
        return false;
    lsn = uint64_t{high} << 32 | low;
    return true;
}

std::string feed_lsn_text(uint64_t lsn)
{
    return fwu_lsn_text(lsn);
}
