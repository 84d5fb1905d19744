// The whole file must be good, as at a start.  What has changed is seen by its lines, so
// that every statement is told by its name.
#include "feed/postgresql/reload.h"

#include "fwutil/fwu_config.h"
#include "fwutil/fwu_config_text.h"
#include "fwutil/fwu_writer.h"
#include "util/outcome.h"
#include "util/report_signal.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>

// Statements that count at once; "sync" only as long as it is not none, at the start or now.
static constexpr std::array<std::string_view, 3> AT_ONCE = {"log-file-size", "log-keep", "sync"};

static pgl_said read_lines(const std::string &path)
{
    pgl_said said;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::string first(fwu_config_first(line));
        if (first.empty())
            continue;
        // Blanks between words say nothing.
        std::istringstream words(line);
        for (std::string word; words >> word && word[0] != '#';)
            said[first] += word + " ";
        said[first] += "\n";
    }
    return said;
}

static bool is_none(const pgl_said &said)
{
    const auto found = said.find("sync");
    return found != said.end() && found->second == "sync none \n";
}

static void add_name(std::string &list, const std::string &name)
{
    list += (list.empty() ? "" : ", ") + name;
}

void pgl_open(pgl_reload &reload, const char *cfg, const std::string &path)
{
    reload.cfg = cfg;
    reload.said = read_lines(path);
    reload.never_syncs = is_none(reload.said);
}

void pgl_look(pgl_reload &reload, fwu_writer *writer)
{
    if (!reload_signal_taken())
        return;
    fwu_config config;
    if (fwu_config_read(config, reload.cfg) != 0) {
        tell("the configuration has an error, and the one before stays in force as a whole; "
             "correct it and send SIGHUP again");
        return;
    }
    pgl_said said = read_lines(config.path);
    std::set<std::string> names;
    for (const pgl_said &each : {reload.said, said})
        for (const auto &[name, lines] : each)
            names.insert(name);
    const bool sync_stays = reload.never_syncs || is_none(said);
    std::string now;
    std::string later;
    for (const std::string &name : names) {
        if (reload.said[name] == said[name])
            continue;
        const bool at_once = std::find(AT_ONCE.begin(), AT_ONCE.end(), name) != AT_ONCE.end() &&
                             !(name == "sync" && sync_stays);
        add_name(at_once ? now : later, name);
    }
    fwu_writer_configure(writer, config);
    reload.said = std::move(said);
    if (now.empty() && later.empty())
        tell("%s was read again: nothing has changed", config.path.c_str());
    else
        tell("%s was read again: %s%s%s%s%s", config.path.c_str(), now.c_str(),
             now.empty() ? "" : " from now on", now.empty() || later.empty() ? "" : "; ",
             later.c_str(), later.empty() ? "" : " from the next start on");
}
