// A forward-log library for the built program: plays the script file named by
// KESTRO_TEST_SCRIPT.  What it is asked goes to the file KESTRO_TEST_CALLS, the
// process id of the session to that name with ".pid".  With KESTRO_TEST_WAIT
// set, Fwu_process waits until a file of that name is there.
//
//   items                             forget the items named so far
//   item NAME TYPE SIZE COUNT AUX     items of the records that follow
//   entry KEY TEXT...                 a session entry
//   data TEXT...                      a session data element
//   position GENERATION SEQUENCE TAG
//   result N                          of Fwu_process
//   rotate FILE                       moved to FILE.1, and SIGHUP, before the record that follows
//   record DB DSET TIME OPCODE RECNUM BEFORE AFTER    images in hex, or "-"
#include "tests/support/fake_fwutil.h"
#include "tests/support/run.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>
#include <utility>

static void on_call(const std::string &call)
{
    const char *path = getenv("KESTRO_TEST_CALLS");
    if (path != nullptr)
        std::ofstream(path, std::ios::app) << call << "\n";
    if (call.rfind("process", 0) != 0)
        return;
    if (path != nullptr)
        std::ofstream(std::string(path) + ".pid") << getpid() << "\n";
    const char *wait = getenv("KESTRO_TEST_WAIT");
    if (wait != nullptr)
        poll_until([&] { return std::filesystem::exists(wait); });
}

static std::string rest_of(std::istringstream &words)
{
    std::string text;
    std::getline(words >> std::ws, text);
    return text;
}

static std::optional<std::string> image(const std::string &hex)
{
    if (hex == "-")
        return std::nullopt;
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

static std::function<void()> g_first; // of the record that follows

static void read_line(const std::string &line, std::vector<fake_item> &items)
{
    std::istringstream words(line);
    std::string what;
    words >> what;
    if (what == "items") {
        items.clear();
    } else if (what == "item") {
        fake_item item;
        words >> item.name >> item.type >> item.size >> item.count >> item.item_aux;
        items.push_back(item);
    } else if (what == "entry") {
        std::string key;
        words >> key;
        g_fwu.session[key] = rest_of(words);
    } else if (what == "data") {
        g_fwu.session_data.push_back(rest_of(words));
    } else if (what == "position") {
        words >> g_fwu.generation >> g_fwu.sequence >> g_fwu.tag;
    } else if (what == "result") {
        words >> g_fwu.process_result;
    } else if (what == "rotate") {
        std::string file;
        words >> file;
        g_first = [file] {
            std::filesystem::rename(file, file + ".1");
            raise(SIGHUP);
        };
    } else if (what == "record") {
        fake_record record;
        record.first = std::exchange(g_first, nullptr);
        std::string before;
        std::string after;
        words >> record.dbname >> record.dsetname >> record.logtime >> record.opcode >>
            record.recnum >> before >> after;
        record.before = image(before);
        record.after = image(after);
        record.items = items;
        g_fwu.records.push_back(record);
    }
}

static bool load_script()
{
    g_fwu.on_call = on_call;
    const char *path = getenv("KESTRO_TEST_SCRIPT");
    if (path == nullptr)
        return false;
    std::ifstream script(path);
    std::vector<fake_item> items;
    for (std::string line; std::getline(script, line);)
        read_line(line, items);
    return true;
}

[[maybe_unused]] static const bool g_loaded = load_script();
