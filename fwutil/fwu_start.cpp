// Positions as text, and the files that they name.
#include "fwutil/fwu_start.h"

#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_error.h"

#include <charconv>
#include <cstdio>

std::string fwu_lsn_text(uint64_t lsn)
{
    char text[24];
    (void)snprintf(text, sizeof text, "%X/%X", static_cast<unsigned>(lsn >> 32),
                   static_cast<unsigned>(lsn)); // fits
    return text;
}

bool fwu_lsn_parse(uint64_t &lsn, std::string_view text)
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

std::string fwu_position_text(const fwu_position &position)
{
    return std::to_string(position.generation) + "-" + std::to_string(position.sequence) + "." +
           std::to_string(position.tag);
}

// Takes decimal digits off the front of text: a number from smallest on.
static bool take_number(std::string_view &text, int32_t smallest, int32_t &number)
{
    if (text.empty() || text[0] == '-')
        return false;
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return code == std::errc() && number >= smallest;
}

static bool take_char(std::string_view &text, char c)
{
    if (text.empty() || text[0] != c)
        return false;
    text.remove_prefix(1);
    return true;
}

bool fwu_position_parse(std::string_view text, fwu_position &position)
{
    position = fwu_position();
    if (!take_number(text, 1, position.sequence))
        return false;
    if (!take_char(text, '-'))
        return text.empty();
    position.generation = position.sequence;
    if (!take_number(text, 1, position.sequence))
        return false;
    if (take_char(text, '.') && !take_number(text, 0, position.tag))
        return false;
    return text.empty();
}

int fwu_start_parse(const char *text, fwu_position &position)
{
    if (fwu_position_parse(text, position) && position.generation <= FWU_GENERATION_MAX &&
        position.sequence <= FWU_SEQUENCE_MAX)
        return 0;
    return fwu_error(
        "start position \"%s\": give a log file number (25, 1-25) for its first record, "
        "or generation-sequence.tag (1-25.340) for the record behind that one",
        text);
}

const fwu_log_file *fwu_start_look(const std::vector<fwu_log_file> &files, fwu_position &position)
{
    const fwu_log_file *file = nullptr;
    for (const fwu_log_file &candidate : files) // ascending: the newest generation stays
        if (candidate.sequence == position.sequence &&
            (position.generation == 0 || candidate.generation == position.generation))
            file = &candidate;
    if (file != nullptr)
        position.generation = file->generation;
    return file;
}

std::string fwu_start_range(const std::vector<fwu_log_file> &files)
{
    if (files.empty())
        return "the log has no files yet";
    const auto start = [](const fwu_log_file &file) {
        return fwu_position_text({file.generation, file.sequence, 0});
    };
    return "the log does not have that file; it has " + files.front().name + " (start position " +
           start(files.front()) + ") to " + files.back().name + " (" + start(files.back()) + ")";
}

int fwu_start_find(const std::vector<fwu_log_file> &files, fwu_position &position,
                   const std::string &what, const fwu_log_file *&file)
{
    file = fwu_start_look(files, position);
    if (file != nullptr)
        return 0;
    return fwu_error("%s: %s%s", what.c_str(), fwu_start_range(files).c_str(),
                     files.empty() ? "; leave the start position out to begin with its first record"
                                   : "");
}
