// Where reading starts.
#include "fwutil/fwu_start.h"

#include "fwutil/fwu_cursor.h"
#include "fwutil/fwu_error.h"

#include <string_view>

std::string fwu_position_text(const fwu_position &position)
{
    return std::to_string(position.generation) + "-" + std::to_string(position.sequence) + "." +
           std::to_string(position.tag);
}

// Takes decimal digits off the front of text; -1 when there are none or the
// number is larger than max.
static int32_t take_number(std::string_view &text, int32_t max)
{
    int64_t value = 0;
    size_t digits = 0;
    for (; digits < text.size() && text[digits] >= '0' && text[digits] <= '9'; digits++) {
        value = value * 10 + (text[digits] - '0');
        if (value > max)
            return -1;
    }
    text.remove_prefix(digits);
    return digits > 0 ? static_cast<int32_t>(value) : -1;
}

static bool take_char(std::string_view &text, char c)
{
    if (text.empty() || text[0] != c)
        return false;
    text.remove_prefix(1);
    return true;
}

int fwu_start_parse(const char *text, fwu_position &position)
{
    std::string_view rest = text;
    position = fwu_position();
    const int32_t first = take_number(rest, FWU_SEQUENCE_MAX);
    bool good = first >= 1;
    if (good && rest.empty()) {
        position.sequence = first;
        return 0;
    }
    position.generation = first;
    good = good && first <= FWU_GENERATION_MAX && take_char(rest, '-');
    if (good) {
        position.sequence = take_number(rest, FWU_SEQUENCE_MAX);
        good = position.sequence >= 1 && take_char(rest, '.');
    }
    if (good) {
        position.tag = take_number(rest, INT32_MAX);
        good = position.tag >= 0 && rest.empty();
    }
    if (!good)
        return fwu_error("start position \"%s\": give a log file number (25) for its first record, "
                         "or generation-sequence.tag (1-25.340) for the record behind that one",
                         text);
    return 0;
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
