// Command lines that nobody meant: each program's scan takes or refuses one alike whenever it is
// asked, says why, and keeps what it takes.  Kestro's against a second scan.
//
// An input is a byte that chooses the program, and its words, each to the next line end.
#include "capture/capinfo.h"
#include "capture/dsetpat.h"
#include "capture/write.h"
#include "driver/base/globals.h"
#include "driver/options.h"
#include "tests/fuzz/target.h"
#include "tests/fuzz/work.h"
#include "tools/capread/capread.h"
#include "tools/fwlog/fwlog.h"
#include "tools/tmf/tmf_tool.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <strings.h>

using words_of = std::vector<std::string>;

static std::vector<char *> pointers(words_of &words)
{
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return argv;
}

// ---- Kestro

// What a scan found, in words.
static std::string kestro_scan(words_of words, fuzz_said &said)
{
    init_globals();
    g_ci = new_capinfo();
    run_options run = {};
    std::vector<char *> argv = pointers(words);
    said = fuzz_listen(
        [&] { return scan_options(static_cast<int>(words.size()), argv.data(), &run); });
    std::string found = std::to_string(g_flags) + " " + std::to_string(g_needsetinfo);
    for (const char *const word : run.words)
        found += std::string(" ") + (word != nullptr ? word : "(none)");
    for (int i = 0; i < ci_get_ncf(g_ci); i++) {
        const capfil &file = *g_ci->capfiles[i];
        found += "\n" + std::string(file.name) + " " + std::to_string(file.hdropts) + " " +
                 std::to_string(file.ascii_flags) + " " + std::to_string(file.info_item);
        for (int n = 0; n < file.npats; n++)
            found += std::string(" ") + file.pats[n];
    }
    free_run_options(&run);
    (void)fuzz_listen([] { return capture_close(g_ci); }); // says how many records there were
    init_globals();
    return found;
}

// How many capture files stand in front of the first error; -1: there is an error.
struct second_scan {
    int files = 0;
    bool good = true;
};

static second_scan scan_again(const words_of &words)
{
    static const char *const run_words[] = {"-pidfile", "-start", "-cfg", "-stat"};
    static const char *const flags[] = {
        "-version",  "-versnum", "-verbose", "-showsets", "-showstat", "-synconly", "-bg",
        "-rollover", "-help",    "-?",       "-capstats", "-dumprecs", "-showskip", "-exthdr",
        "-yyyy",     "-recnum",  "-fga",     "-ascii",    "-asciirev", "-dirty",    "-bwfmt"};
    const auto is = [](const std::string &word, const char *name) {
        return strcasecmp(word.c_str(), name) == 0;
    };
    second_scan found;
    std::map<std::string, int> held;
    bool text = false;
    bool needs_text = false;
    for (size_t i = 1; i < words.size(); i++) {
        const std::string &word = words[i];
        if (word.empty() || word[0] != '-') {
            found.good = text || !needs_text;
            if (!found.good)
                return found;
            found.files++;
            text = needs_text = false;
            held.erase("-progterm");
            held.erase("-info");
            continue;
        }
        const auto any = [&](const auto &names) {
            return std::any_of(std::begin(names), std::end(names),
                               [&](const char *name) { return is(word, name); });
        };
        if (word == "-pause" || any(flags)) {
            text = text || is(word, "-ascii") || is(word, "-asciirev");
            needs_text = needs_text || is(word, "-dirty") || is(word, "-bwfmt");
            continue;
        }
        const bool run_word = any(run_words);
        if (!run_word && !is(word, "-dset") && !is(word, "-progterm") && !is(word, "-info"))
            return {found.files, false};
        if (i + 1 == words.size())
            return {found.files, false};
        const std::string &value = words[++i];
        std::string name = word;
        std::transform(name.begin(), name.end(), name.begin(),
                       [](char c) { return static_cast<char>(tolower(c)); });
        if (name == "-dset") {
            int rc = 0;
            (void)fuzz_listen([&] { return rc = dset_valid(value.c_str()); });
            found.good = rc == 0;
        } else {
            found.good = ++held[name] == 1;
            if (name == "-info")
                found.good = found.good && (is(value, "prog") || is(value, "dbname") ||
                                            is(value, "dbuser") || is(value, "session"));
        }
        if (!found.good)
            return found;
    }
    return found;
}

static void kestro(words_of words)
{
    words.insert(words.begin(), "Kestro");
    fuzz_said said;
    fuzz_said again;
    const std::string found = kestro_scan(words, said);
    fuzz_equal(kestro_scan(words, again), found, "scanned twice");
    fuzz_expect(said == again, "scanned twice: what was said");
    const second_scan other = scan_again(words);
    fuzz_equal(said.status == 0, other.good, "two scans of a command line");
    fuzz_equal(static_cast<int>(std::count(found.begin(), found.end(), '\n')) -
                   static_cast<int>(
                       std::count_if(words.begin(), words.end(),
                                     [](const std::string &w) { return w.find('\n') != w.npos; })),
               other.files, "capture files");
    fuzz_equal(said.status == 0, said.err.empty(), "refused, and nothing said");
}

// ---- programs with rows

static const std::vector<const cli_command *> &commands()
{
    static const std::vector<const cli_command *> all = [] {
        std::vector<const cli_command *> found = {&capread_row};
        for (const cli_program *program : {&fwlog_program, &tmf_program})
            found.insert(found.end(), program->commands.begin(), program->commands.end());
        return found;
    }();
    return all;
}

// The words that the rows hold.
static std::vector<const char *> kept(const cli_command &command)
{
    std::vector<const char *> words;
    for (const cli_option &option : command.options)
        if (const auto *const target = std::get_if<const char **>(&option.target))
            words.push_back(**target);
    return words;
}

// What they hold more than before is of the command line.
static void check_kept(const cli_command &command, const std::vector<const char *> &before,
                       const std::vector<char *> &argv)
{
    const std::vector<const char *> now = kept(command);
    for (size_t i = 0; i < now.size(); i++)
        fuzz_expect(now[i] == before[i] || std::any_of(argv.begin(), argv.end() - 1,
                                                       [&](const char *word) {
                                                           return now[i] >= word &&
                                                                  now[i] <= word + strlen(word);
                                                       }),
                    "a word that stands nowhere");
}

static void scan_rows(const cli_command &command, words_of words)
{
    words.insert(words.begin(), command.name);
    std::vector<char *> argv = pointers(words);
    fuzz_said said[2];
    for (fuzz_said &one : said) {
        for (const cli_command *const row : commands())
            fuzz_reset_options(*row);
        const std::vector<const char *> before = kept(command);
        one = fuzz_listen([&] {
            const outcome done = cli_scan(command, static_cast<int>(words.size()), argv.data());
            return static_cast<int>(done.kind());
        });
        if (one.status == OUTCOME_OK)
            check_kept(command, before, argv);
    }
    fuzz_expect(said[0].status == OUTCOME_OK || said[0].status == OUTCOME_USAGE,
                "neither taken nor refused");
    fuzz_equal(said[0].status == OUTCOME_OK, said[0].err.empty(), "refused, and nothing said");
    fuzz_expect(said[0].out.empty(), "a scan prints");
    // Rows that hand words to a function may keep them, and take none twice.
    for (const cli_option &option : command.options)
        if (std::holds_alternative<bool (*)(const char *)>(option.target))
            return;
    fuzz_expect(said[0] == said[1], "scanned twice");
    for (const cli_command *const row : commands())
        fuzz_reset_options(*row);
}

static void run(std::string_view input)
{
    fuzz_bytes in = {input};
    const size_t chosen = in.byte();
    words_of words;
    while (!in.rest.empty()) {
        std::string word(in.rest.substr(0, in.rest.find('\n')));
        in.rest.remove_prefix(std::min(word.size() + 1, in.rest.size()));
        word = word.substr(0, word.find('\0'));
        words.push_back(word);
    }
    const std::vector<const cli_command *> &all = commands();
    if (chosen % (all.size() + 1) == 0)
        kestro(words);
    else
        scan_rows(*all[chosen % (all.size() + 1) - 1], words);
}

static std::vector<std::string> seeds()
{
    const auto made = [](int program, const char *words) {
        return std::string(1, static_cast<char>(program)) + words;
    };
    std::vector<std::string> all = {
        made(0, "-stat\ns\n-synconly\n-ascii\n-dset\nsales:orders\nout.txt\n-exthdr\n-yyyy\n-dset\n"
                "depot:\nother.txt"),
        made(0, "-cfg\na\n-cfg\nb\nout"),
        made(0, "-bwfmt\nout"),
        made(0, "-ASCIIREV\n-Dirty\n-bwfmt\n-info\nPROG\n-progterm\n/\n-recnum\n-fga\nout"),
        made(1, "--layout\nl.json\n-ascii\n--dset\nA:B\n--columns\nNO,NET\ncap.txt"),
    };
    for (size_t i = 1; i <= commands().size(); i++)
        all.push_back(made(static_cast<int>(i), "-cfg\nx\n--json\n--\nFILE"));
    return all;
}

static std::vector<std::string> words()
{
    std::vector<std::string> all = {"-pause\n",
                                    "-verbose\n",
                                    "-showsets\n",
                                    "-pidfile\n",
                                    "-start\n",
                                    "-progterm\n",
                                    "-info\n",
                                    "-dset\n",
                                    "-ascii\n",
                                    "=",
                                    "\n",
                                    "--help",
                                    "18446744073709551616",
                                    "1-25.340"};
    for (const cli_command *const command : commands())
        for (const cli_option &option : command->options)
            all.push_back(std::string(option.name) + "\n");
    return all;
}

constinit const fuzz_target fuzz_options = {
    .name = "options", .longest = 600, .run = run, .seeds = seeds, .words = words};
