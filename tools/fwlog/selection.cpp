// Patterns are those of Kestro's -dset, in its stored form.
#include "tools/fwlog/selection.h"

#include "capture/dsetpat.h"

#include <algorithm>
#include <cstdlib>
#include <set>

fwlog_selection fwlog_selected;

bool fwlog_take_dset(const char *word)
{
    if (*word == '\0' || dset_valid(word) != 0)
        return false;
    char *const stored = copy_dset_parm(word);
    fwlog_selected.patterns.emplace_back(stored);
    free(stored);
    return true;
}

bool fwlog_take_after(const char *word)
{
    return fwu_position_parse(word, fwlog_selected.after) && fwlog_selected.after.generation != 0 &&
           fwlog_selected.after.tag != 0;
}

bool fwlog_take_from(const char *word)
{
    return fwu_position_parse(word, fwlog_selected.from);
}

bool fwlog_take_to(const char *word)
{
    return fwu_position_parse(word, fwlog_selected.to);
}

bool fwlog_selects(const std::string &dbname, const std::string &dsetname)
{
    const std::vector<std::string> &patterns = fwlog_selected.patterns;
    const std::string subject = dbname + ":" + dsetname;
    return patterns.empty() ||
           std::any_of(patterns.begin(), patterns.end(), [&](const std::string &pattern) {
               return patmatches(pattern.c_str(), subject.c_str()) != 0;
           });
}

std::string fwlog_selection_text()
{
    const std::set<std::string> patterns(fwlog_selected.patterns.begin(),
                                         fwlog_selected.patterns.end());
    std::string text;
    for (const std::string &pattern : patterns)
        text += (text.empty() ? "" : " ") + pattern;
    return text;
}

outcome fwlog_open_selected(change_reader &reader, const char *cfg)
{
    const fwlog_selection &selected = fwlog_selected;
    if (selected.after.sequence != 0 && selected.from.sequence != 0)
        return cli_usage("give only one of --after and --from", "--after");
    fwu_config config;
    if (fwu_config_read(config, cfg) != 0)
        return OUTCOME_FAILED;
    if (selected.after.sequence == 0 && selected.from.sequence == 0)
        fwu_log_warn_begins_late(config.log_directory);
    return fwlog_told(
        change_open(reader, config, {selected.after, selected.from, selected.to, fwlog_selects}) ==
        0);
}
