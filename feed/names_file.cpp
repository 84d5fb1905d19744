// The file of names has a line for each name.
#include "feed/names.h"

#include "feed/names_log.h"
#include "feed/whole_file.h"
#include "fwutil/fwu_config_text.h"
#include "fwutil/fwu_source_name.h"

static constexpr std::string_view FIRST_LINE = "fwlog names 1\n";
// Takes a line; false: it is none that is written here.
static bool take(feed_names &names, const fwu_words &w)
{
    std::vector<std::string> parts;
    if (w.size() < 3 || !fwu_source_name_parts(parts, w[1]))
        return false;
    if (w[0] == "column" && w.size() == 3 && parts.size() == 3)
        return names.items.emplace(w[1], w[2]).second;
    if (w[0] != "table" || w.size() != 4 || parts.size() != 2)
        return false;
    return names.tables.emplace(w[1], feed_dataset_name{w[2], w[3]}).second &&
           names.owners.emplace(w[2] + "." + w[3], w[1]).second;
}

static bool take_all(feed_names &names, std::string_view text)
{
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        fwu_words words;
        if (end == text.npos ||
            fwu_config_split_names({names.path}, text.substr(at, end - at), words) != 0 ||
            !take(names, words))
            return false;
        at = end + 1;
    }
    return true;
}

outcome feed_names_open(feed_names &names, const std::string &directory, mode_t mode)
{
    names = {};
    names.mode = mode;
    if (directory.empty())
        return {};
    names.path = directory + "/names";
    std::string text;
    switch (feed_whole_read(text, names.path, FIRST_LINE)) {
    case FEED_WHOLE_NONE:
        return feed_names_from_log(names, directory);
    case FEED_WHOLE_FAILED:
        return outcome_failed("%s: cannot read the names of datasets and items: %m",
                              names.path.c_str());
    case FEED_WHOLE:
        if (take_all(names, text))
            return {};
        break;
    case FEED_WHOLE_DAMAGED:
        break;
    }
    return outcome_failed("%s: damaged: it says which dataset each table has; restore it from a "
                          "copy, or remove it: then they are taken from the layouts in the log",
                          names.path.c_str());
}

static std::string text_of(const feed_names &names)
{
    std::string text;
    for (const auto &[table, name] : names.tables)
        text += "table " + table + " " + name.dbname + " " + name.dsetname + "\n";
    for (const auto &[column, item] : names.items)
        text += "column " + column + " " + item + "\n";
    return text;
}

outcome feed_names_keep(feed_names &names, bool all)
{
    if (!(all ? names.is_new : names.must_keep) || names.path.empty())
        return {};
    if (!feed_whole_write(names.path, names.mode, FIRST_LINE, text_of(names)))
        return outcome_failed("%s: cannot keep the names of datasets and items: %m",
                              names.path.c_str());
    names.is_new = names.must_keep = false;
    return {};
}
