// Nothing that stands in the log directory is believed: a file that cannot be read, or names what
// is none, is answered; one whose owner is gone is taken away.
#include "feed/postgresql/request.h"

#include "feed/postgresql/kept.h"
#include "feed/postgresql/resumable.h"
#include "fwutil/fwu_clock.h"
#include "fwutil/fwu_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

static constexpr int64_t LOOK_MS = 1000;
static constexpr int64_t LOOK_SOON_MS = 200;   // while somebody waits for an answer
static constexpr int64_t ASK_AGAIN_MS = 5000;  // for a server that did not answer
static constexpr time_t LEFT_S = 60;           // after which nobody is just making such a file
static constexpr char DATA_EXCEPTION[] = "22"; // SQLSTATE: texts that its encoding does not have
static constexpr off_t REQUEST_MAX = 64 << 20;

static std::string path_of(const pgr_requests &requests, const std::string &file,
                           const char *suffix)
{
    return requests.directory + "/" + file + suffix;
}

// ---- files

// Names in the log directory that begin as those of requests and answers do.
static std::set<std::string> list_files(const pgr_requests &requests)
{
    std::set<std::string> names;
    DIR *const directory = opendir(requests.directory.c_str());
    if (directory == nullptr)
        return names; // the log's own files will tell
    while (const dirent *entry = readdir(directory))
        if (strncmp(entry->d_name, PGR_PREFIX, sizeof PGR_PREFIX - 1) == 0)
            names.insert(entry->d_name);
    closedir(directory);
    return names;
}

static std::string without(const std::string &name, std::string_view suffix)
{
    return name.ends_with(suffix) ? name.substr(0, name.size() - suffix.size()) : "";
}

// Whether somebody waits for the answer: a file is locked as long as that process lives.
static bool is_locked(int fd)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

static void remove_both(const pgr_requests &requests, const std::string &file)
{
    for (const char *suffix : {PGR_REQUEST, PGR_ANSWER})
        (void)unlink(path_of(requests, file, suffix).c_str()); // may be gone
}

// What a run before was at: answers without requests, files that were never finished.
static void remove_left(const pgr_requests &requests)
{
    const std::set<std::string> names = list_files(requests);
    for (const std::string &name : names) {
        const std::string path = requests.directory + "/" + name;
        const std::string answered = without(name, PGR_ANSWER);
        struct stat about = {};
        if (without(name, PGR_REQUEST).empty() && !names.contains(answered + PGR_REQUEST) &&
            stat(path.c_str(), &about) == 0 && about.st_mtime < time(nullptr) - LEFT_S)
            (void)unlink(path.c_str()); // else the next start does it
    }
}

// The lines of a file that others have made; 0 or errno.
static int read_lines(std::vector<std::string> &lines, int fd)
{
    struct stat about = {};
    if (fd < 0 || fstat(fd, &about) != 0)
        return errno;
    if (!S_ISREG(about.st_mode))
        return EINVAL;
    if (about.st_size > REQUEST_MAX)
        return EFBIG;
    std::string text(static_cast<size_t>(about.st_size), '\0');
    const ssize_t length = fwu_read_all(fd, text.data(), text.size(), 0);
    if (length < 0)
        return errno;
    text.resize(static_cast<size_t>(length));
    for (size_t at = 0, end; (end = text.find('\n', at)) != text.npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return 0;
}

// ---- what is asked for

static void add_table(pgr_answer &answer, const std::string &name)
{
    const auto is_it = [&name](const pgr_table &table) { return table.name == name; };
    if (std::none_of(answer.tables.begin(), answer.tables.end(), is_it))
        answer.tables.push_back({.name = name});
}

static void add_words(pgr_answer &answer, const pga_registry &aside,
                      const std::vector<std::string> &words)
{
    for (const std::string &word : words) {
        if (word == PGR_ALL) {
            for (const auto &[name, table] : aside.tables)
                if (pga_find(aside, name)->standing == PGA_ASIDE)
                    answer.tables.push_back({.name = name});
            continue;
        }
        const std::string name = pgr_table_name(word);
        if (name.empty())
            answer.tables.push_back({.name = word,
                                     .state = PGR_REFUSED,
                                     .reason = "this is no name of a table (schema.table)"});
        else
            add_table(answer, name);
    }
}

// What a run of before has answered holds.
static bool take_answer(pgr_answer &answer, const std::string &path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    std::vector<std::string> lines;
    const bool read = read_lines(lines, fd) == 0;
    if (fd >= 0)
        close(fd);
    pgr_answer found;
    if (!read || lines.size() != 1 || !pgr_answer_read(found, lines[0] + "\n"))
        return false;
    // A name that is no UTF-8 is another one there: what was asked for is taken from the request.
    if (lines[0].find("\\ufffd") != std::string::npos)
        return false;
    const auto is_no_name = [](const pgr_table &table) {
        return table.state == PGR_ASKED && pgr_table_name(table.name) != table.name;
    };
    if (std::any_of(found.tables.begin(), found.tables.end(), is_no_name))
        return false;
    answer = std::move(found);
    return true;
}

// Takes a request that is there.
static void take_request(pgr_requests &requests, const pga_registry &aside, const std::string &file)
{
    pgr_request request = {.file = file};
    const std::string path = path_of(requests, file, PGR_REQUEST);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    if (fd < 0 && errno == ENOENT)
        return;
    std::vector<std::string> words;
    const int code = fd < 0 ? errno : read_lines(words, fd);
    const bool left = fd >= 0 && !is_locked(fd);
    if (fd >= 0)
        close(fd);
    if (left)
        return remove_both(requests, file);
    const bool answered = take_answer(request.answer, path_of(requests, file, PGR_ANSWER));
    if (!answered && code == 0)
        add_words(request.answer, aside, words);
    else if (!answered)
        request.answer.tables.push_back(
            {.name = path,
             .state = PGR_REFUSED,
             .reason = std::string("cannot be read: ") + strerror(code)});
    requests.open.push_back(std::move(request));
}

static void look_at_files(pgr_requests &requests, const pga_registry &aside)
{
    const std::set<std::string> names = list_files(requests);
    std::set<std::string> taken;
    std::erase_if(requests.open, [&](const pgr_request &request) {
        if (request.file.empty())
            return false;
        const int fd = open(path_of(requests, request.file, PGR_REQUEST).c_str(),
                            O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
        const bool gone = fd < 0 ? errno == ENOENT : !is_locked(fd);
        if (fd >= 0)
            close(fd);
        if (gone)
            remove_both(requests, request.file);
        else
            taken.insert(request.file);
        return gone;
    });
    for (const std::string &name : names) {
        const std::string file = without(name, PGR_REQUEST);
        if (!file.empty() && !taken.contains(file))
            take_request(requests, aside, file);
    }
}

void pgr_open(pgr_requests &requests, const pga_registry &aside,
              const std::vector<const char *> &own)
{
    remove_left(requests);
    if (own.empty())
        return;
    pgr_request request;
    add_words(request.answer, aside, {own.begin(), own.end()});
    if (request.answer.tables.empty())
        tell("no table is set aside");
    requests.open.push_back(std::move(request));
}

// ---- what becomes of it

template <typename Does> static void for_asked(pgr_requests &requests, Does does)
{
    for (pgr_request &request : requests.open)
        for (pgr_table &table : request.answer.tables)
            if (table.state == PGR_ASKED)
                does(request, table);
}

static void refuse(pgr_requests &requests, const pgr_request &request, pgr_table &table,
                   const std::string &why)
{
    table.state = PGR_REFUSED;
    table.reason = why;
    table.rows = 0;
    requests.refused = requests.refused || request.file.empty();
}

// Asks the server what it knows of tables; false when it does not answer.  What it cannot even
// read is in refused.
static bool ask(std::map<std::string, pgr_found> &found,
                std::map<std::string, std::string> &refused, const pgr_requests &requests,
                const pgf_facts &facts, std::span<const std::string> names)
{
    pgs_result rows;
    if (facts.ask(pgr_query(names, requests.publication), rows)) {
        found.merge(pgr_take_rows(rows));
        return true;
    }
    const char *state =
        rows == nullptr ? nullptr : PQresultErrorField(rows.get(), PG_DIAG_SQLSTATE);
    if (state == nullptr || strncmp(state, DATA_EXCEPTION, sizeof DATA_EXCEPTION - 1) != 0)
        return false;
    if (names.size() == 1) {
        refused[names[0]] = pgs_one_line(PQresultErrorField(rows.get(), PG_DIAG_MESSAGE_PRIMARY));
        return true;
    }
    const size_t half = names.size() / 2;
    return ask(found, refused, requests, facts, names.first(half)) &&
           ask(found, refused, requests, facts, names.subspan(half));
}

// Decides what can be decided now; the tables that are to be taken in are so from here on.
static outcome decide(pgr_requests &requests, pgb_relations &relations, fwu_writer *writer)
{
    std::set<std::string> asked;
    for_asked(requests,
              [&asked](const pgr_request &, const pgr_table &table) { asked.insert(table.name); });
    if (asked.empty() || fwu_monotonic_ms() < requests.ask_ms)
        return {};
    const std::vector<std::string> names(asked.begin(), asked.end());
    std::map<std::string, pgr_found> found;
    std::map<std::string, std::string> refused;
    if (!ask(found, refused, requests, relations.facts, names)) {
        requests.ask_ms = fwu_monotonic_ms() + ASK_AGAIN_MS;
        for_asked(requests, [](const pgr_request &, pgr_table &table) {
            table.reason = "the server has not answered a question about it yet";
        });
        return {};
    }
    // What it is taken in behind is on disk, and so is what it was before.
    if (fwu_writer_sync(writer) != 0)
        return OUTCOME_FAILED;
    const uint64_t last_lsn = fwu_writer_last_lsn(writer);
    for_asked(requests, [&](const pgr_request &request, pgr_table &table) {
        const auto row = found.find(table.name);
        const pgr_found *known = row == found.end() ? nullptr : &row->second;
        const auto no_name = refused.find(table.name);
        const std::string why = no_name != refused.end() ? no_name->second
                                                         : pgr_refusal(table.name, known, relations,
                                                                       requests.publication);
        if (!why.empty()) {
            if (request.file.empty())
                tell("warning: table %s is not taken in: %s", table.name.c_str(), why.c_str());
            return refuse(requests, request, table, why);
        }
        table.state = PGR_TAKING;
        table.reason.clear();
        if (known != nullptr)
            table.estimate = known->estimate;
        const pga_record *const record = pga_find(relations.aside, table.name);
        table.aside = record != nullptr && record->standing == PGA_ASIDE;
        pgr_put(relations.aside, table.name, last_lsn);
    });
    return pga_keep(relations.aside, fwu_writer_durable_lsn(writer));
}

// What has become of a table that is being taken in.
static void follow(pgr_requests &requests, const pgr_request &request, pgr_table &table,
                   const pga_registry &aside, const pgr_moment &moment)
{
    const pga_record *record = pga_find(aside, table.name);
    const uint64_t logged = fwu_writer_logged_lsn(moment.writer);
    if (moment.between)
        table.reason.clear();
    const auto taken = aside.taken.find(table.name);
    if (record != nullptr && record->standing == PGA_TAKING)
        table.rows = record->rows;
    else if (taken != aside.taken.end())
        table.rows = taken->second;
    if (record == nullptr || (record->standing == PGA_FOLLOWED &&
                              record->at <= (logged == fwu_writer_last_lsn(moment.writer)
                                                 ? std::max(moment.logged_lsn, logged)
                                                 : logged)))
        table.state = PGR_FOLLOWED;
    else if (record->standing == PGA_ASIDE)
        refuse(requests, request, table,
               (table.aside ? "it was set aside again: " : "it was set aside: ") + record->reason);
}

static void answer(const pgr_requests &requests, pgr_request &request)
{
    const std::string text = pgr_answer_text(request.answer);
    if (request.file.empty() || text == request.written)
        return;
    request.written = text; // told once where that fails
    const std::string path = path_of(requests, request.file, PGR_ANSWER);
    if (!pgb_put_file(path, requests.mode, text, false))
        tell("%s: cannot answer there: %m", path.c_str());
}

outcome pgr_look(pgr_requests &requests, pgb_relations &relations, const pgr_moment &moment)
{
    const int64_t now = fwu_monotonic_ms();
    if (now < requests.look_ms)
        return {};
    look_at_files(requests, relations.aside);
    requests.look_ms = now + LOOK_MS;
    if (moment.between) {
        if (outcome done = decide(requests, relations, moment.writer); !done)
            return done;
    } else {
        for (pgr_request &request : requests.open)
            for (pgr_table &table : request.answer.tables)
                if (table.state < PGR_FOLLOWED)
                    table.reason = moment.waits;
    }
    for (pgr_request &request : requests.open) {
        request.answer.done = true;
        for (pgr_table &table : request.answer.tables) {
            if (table.state == PGR_TAKING)
                follow(requests, request, table, relations.aside, moment);
            request.answer.done = request.answer.done && table.state >= PGR_FOLLOWED;
        }
        answer(requests, request);
        if (!request.answer.done)
            requests.look_ms = now + LOOK_SOON_MS;
    }
    return {};
}

void pgr_close(pgr_requests &requests, pgb_relations &relations, fwu_writer *writer,
               uint64_t logged_lsn)
{
    requests.look_ms = 0;
    (void)pgr_look(requests, relations, {.writer = writer, .logged_lsn = logged_lsn}); // asks none
}

bool pgr_waits(const pgr_requests &requests)
{
    const auto waits = [](const pgr_request &request) {
        return request.file.empty() &&
               std::any_of(request.answer.tables.begin(), request.answer.tables.end(),
                           [](const pgr_table &table) { return table.state == PGR_ASKED; });
    };
    return std::any_of(requests.open.begin(), requests.open.end(), waits);
}
