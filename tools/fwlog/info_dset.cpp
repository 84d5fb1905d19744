// A pattern that takes nothing is no error to Kestro: the log may get such a dataset later.
// It is told here, with the patterns that the same letters may have been meant for.
#include "tools/fwlog/info_dset.h"

#include "capture/dsetpat.h"
#include "tools/fwlog/dump_value.h"
#include "util/json_text.h"

#include <algorithm>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <vector>

constexpr size_t MEANT_MAX = 5; // patterns that are proposed, or datasets that are named

struct asked_pattern {
    std::string word;   // as given
    std::string stored; // as patmatches takes it
};
static std::vector<asked_pattern> asked;

static std::string stored_form(const std::string &word)
{
    char *const stored = copy_dset_parm(word.c_str());
    std::string result = stored;
    free(stored);
    return result;
}

bool info_take_dset(const char *word)
{
    if (*word == '\0' || dset_valid(word) != 0)
        return false;
    asked.push_back({word, stored_form(word)});
    return true;
}

bool info_has_dsets()
{
    return !asked.empty();
}

std::string info_dataset_line(const std::string &database, const std::string &dataset,
                              const survey_counts &counts)
{
    std::string name;
    dump_name(name, database);
    name += ".";
    dump_name(name, dataset);
    char numbers[100];
    snprintf(numbers, sizeof numbers, " %10" PRIu64 " %10" PRIu64 " %10" PRIu64, counts.inserts,
             counts.updates, counts.deletes);
    name.resize(std::max<size_t>(name.size(), 33), ' ');
    return name + numbers;
}

std::string info_dataset_json(const std::string &database, const std::string &dataset,
                              const survey_counts &counts)
{
    return "{\"database\":" + json_text(database) + ",\"dataset\":" + json_text(dataset) +
           ",\"inserts\":" + std::to_string(counts.inserts) +
           ",\"updates\":" + std::to_string(counts.updates) +
           ",\"deletes\":" + std::to_string(counts.deletes) + "}";
}

static survey_datasets taken_by(const std::string &stored, const survey_datasets &datasets)
{
    survey_datasets taken;
    for (const auto &[name, counts] : datasets)
        if (patmatches(stored.c_str(), (name.first + ":" + name.second).c_str()) != 0)
            taken[name] = counts;
    return taken;
}

// The letters and digits alone, in upper case.
static std::string bare(const std::string &text)
{
    std::string result;
    for (const char c : text)
        if (isalnum(static_cast<unsigned char>(c)) != 0)
            result += static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return result;
}

// Patterns that take something and read like one that does not.
static std::vector<std::string> meant_by(const std::string &word, const survey_datasets &datasets)
{
    std::vector<std::string> meant;
    const auto propose = [&](const std::string &pattern) {
        for (const std::string &other : meant)
            if (other == pattern)
                return;
        if (meant.size() < MEANT_MAX && dset_valid(pattern.c_str()) == 0)
            meant.push_back(pattern);
    };
    // A dot where the colon belongs.
    for (size_t at = word.find('.'); at != word.npos && word.find(':') == word.npos;
         at = word.find('.', at + 1)) {
        std::string pattern = word;
        pattern[at] = ':';
        if (pattern.size() - at - 1 <= PAT_DSETNAME_MAX &&
            !taken_by(stored_form(pattern), datasets).empty())
            propose(pattern);
    }
    if (!meant.empty())
        return meant;
    // The name of a database without its colon; the name of a dataset in another database, or
    // with other signs in it.
    const std::string last = bare(word.substr(word.find_last_of(".:") + 1));
    const std::string all = bare(word);
    for (const auto &[name, counts] : datasets) {
        if (!all.empty() && bare(name.first) == all)
            propose(name.first + ":");
        if (!all.empty() && (bare(name.second) == last || bare(name.first + name.second) == all))
            propose(name.first + ":" + name.second);
    }
    return meant;
}

static void print_none(const std::string &word, const survey_datasets &datasets)
{
    const std::vector<std::string> meant = meant_by(word, datasets);
    std::string text = "    takes nothing of this log";
    for (const std::string &pattern : meant)
        text += (pattern == meant.front() ? "; perhaps meant: -dset " : " or -dset ") + pattern;
    if (meant.empty() && !datasets.empty()) {
        size_t n = 0;
        for (const auto &[name, counts] : datasets)
            if (n++ < MEANT_MAX)
                text += (n == 1 ? "; it has " : ", ") + name.first + ":" + name.second;
        if (n > MEANT_MAX)
            text += " and " + std::to_string(n - MEANT_MAX) + " more";
    }
    printf("%s\n", text.c_str());
}

static void print_text(const asked_pattern &pattern, const survey_datasets &taken,
                       const survey_datasets &datasets)
{
    printf("-dset %s is taken as %s\n", pattern.word.c_str(), pattern.stored.c_str());
    if (taken.empty())
        return print_none(pattern.word, datasets);
    printf("    %-33s %10s %10s %10s\n", "dataset", "inserts", "updates", "deletes");
    uint64_t records = 0;
    for (const auto &[name, counts] : taken) {
        printf("    %s\n", info_dataset_line(name.first, name.second, counts).c_str());
        records += counts.inserts + counts.updates + counts.deletes;
    }
    printf("    %zu dataset%s, %" PRIu64 " record%s\n", taken.size(), taken.size() == 1 ? "" : "s",
           records, records == 1 ? "" : "s");
}

static void print_json(const asked_pattern &pattern, const survey_datasets &taken,
                       const survey_datasets &datasets, const char *separator)
{
    printf("%s{\"pattern\":%s,\"taken_as\":%s,\"datasets\":[", separator,
           json_text(pattern.word).c_str(), json_text(pattern.stored).c_str());
    uint64_t records = 0;
    const char *between = "";
    for (const auto &[name, counts] : taken) {
        printf("%s%s", between, info_dataset_json(name.first, name.second, counts).c_str());
        between = ",";
        records += counts.inserts + counts.updates + counts.deletes;
    }
    printf("],\"records\":%" PRIu64 ",\"meant\":[", records);
    between = "";
    for (const std::string &meant :
         taken.empty() ? meant_by(pattern.word, datasets) : std::vector<std::string>()) {
        printf("%s%s", between, json_text(meant).c_str());
        between = ",";
    }
    printf("]}");
}

bool info_print_dsets(const survey_datasets &datasets, bool json)
{
    bool all = true;
    const char *separator = "{\"patterns\":[";
    for (const asked_pattern &pattern : asked) {
        const survey_datasets taken = taken_by(pattern.stored, datasets);
        all = all && !taken.empty();
        if (json)
            print_json(pattern, taken, datasets, separator);
        else
            print_text(pattern, taken, datasets);
        separator = ",";
    }
    if (json)
        printf("]}\n");
    return all;
}
