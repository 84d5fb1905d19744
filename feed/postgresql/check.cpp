// The steps of a check.  What a run would refuse one after the other is a finding, and the
// check goes on; only without a connection there is nothing to be found.
#include "feed/postgresql/check.h"

#include "feed/policy.h"
#include "feed/postgresql/check_report.h"
#include "feed/postgresql/connect.h"
#include "feed/postgresql/query.h"
#include "fwutil/fwu_file.h"
#include "fwutil/fwu_log.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

bool pgk_starts(const pgk_report &report)
{
    return std::none_of(report.findings.begin(), report.findings.end(),
                        [](const pgk_finding &finding) { return finding.stops; });
}

int64_t pgk_record_length(const pgk_table &table)
{
    return PGK_HEADER_MAX + 2 * int64_t{table.fed->image_length};
}

std::string pgk_item_text(const fwu_item &item)
{
    std::string text =
        std::string(1, static_cast<char>(item.type)) + " " + std::to_string(item.size);
    if (item.count > 1)
        text += " x" + std::to_string(item.count);
    if (item.item_aux != 0)
        text += " scale=" + std::to_string(item.item_aux);
    return text;
}

const char *pgk_encoding_word(fwu_encoding encoding)
{
    return encoding == FWU_UTF8 ? "utf-8" : "iso-8859-1";
}

const char *pgk_policy_word(fwu_policy policy)
{
    return policy == FWU_POLICY_ERROR ? "error" : "mark";
}

fwu_policy pgk_policy(const pgk_report &report)
{
    const fwu_policy said = report.config.policy;
    return said != FWU_POLICY_UNSAID ? said : feed_server_policy(report.config);
}

static void add(pgk_report &report, bool stops, const char *kind, std::string text,
                std::vector<std::string> sql)
{
    report.findings.push_back({.stops = stops,
                               .kind = kind,
                               .text = std::move(text),
                               .sql = std::move(sql),
                               .lines = {}});
}

void pgk_stop(pgk_report &report, const char *kind, std::string text, std::vector<std::string> sql)
{
    add(report, true, kind, std::move(text), std::move(sql));
}

void pgk_note(pgk_report &report, const char *kind, std::string text, std::vector<std::string> sql)
{
    add(report, false, kind, std::move(text), std::move(sql));
}

// A check may come before the configuration: then it is the one that a log directory beside it
// would have.
static outcome read_config(pgk_report &report)
{
    const char *const around = getenv("FWUTIL_CFG");
    const bool named = report.options.cfg != nullptr || (around != nullptr && *around != '\0');
    static constexpr char usual[] = "fwutil.cfg";
    if (named || access(usual, F_OK) == 0 || errno != ENOENT)
        return fwu_config_read(report.config, report.options.cfg) == 0 ? OUTCOME_OK
                                                                       : OUTCOME_FAILED;
    report.config.path = usual;
    report.config.log_directory = "log";
    pgk_stop(report, "configuration",
             std::string("there is no configuration file ") + usual +
                 ": write one with --write-config, or one with the line that follows");
    report.findings.back().lines.push_back("log-directory log");
    return {};
}

// The position of the log's last transaction.  What cannot be read a run says; as far as it can be,
// it counts.
static uint64_t last_position(const std::vector<fwu_log_file> &files)
{
    for (auto file = files.rbegin(); file != files.rend(); ++file) {
        fwu_cursor cursor;
        uint64_t last = 0;
        if (fwu_cursor_try_open(cursor, *file) != 0)
            return UINT64_MAX;
        while (fwu_cursor_next(cursor) == FWU_FOUND)
            last = cursor.commit.commit.lsn;
        fwu_cursor_close(cursor);
        if (last != 0)
            return last;
    }
    return 0;
}

// What a log that is there says; its encoding stays.
static outcome look_at_log(pgk_report &report)
{
    const fwu_config &config = report.config;
    report.encoding = config.encoding.value_or(FWU_UTF8);
    std::error_code none;
    if (!std::filesystem::exists(config.log_directory, none))
        return {};
    report.kept.path = config.log_directory + "/source";
    if (outcome read = pgb_kept_read(report.kept, ""); !read)
        return read;
    std::vector<fwu_log_file> files;
    fwu_file_header header;
    if (fwu_log_list(config.log_directory, files) != 0)
        return OUTCOME_FAILED;
    if (outcome opened =
            pga_open(report.relations.aside, config.log_directory, 0, last_position(files));
        !opened)
        return opened;
    report.log_begun = !files.empty();
    if (files.empty() || fwu_log_header(files.back(), header) != FWU_FOUND)
        return {}; // a run says what is wrong with it
    report.encoding = header.encoding;
    if (config.encoding.has_value() && *config.encoding != header.encoding)
        pgk_stop(report, "configuration",
                 std::string("text-encoding is ") + pgk_encoding_word(*config.encoding) +
                     ", the log in " + config.log_directory + " has " +
                     pgk_encoding_word(header.encoding) +
                     ": take the line out, or begin a new log directory");
    return {};
}

static outcome set_up(pgk_report &report)
{
    const pgb_options &options = report.options;
    if (outcome read = read_config(report); !read)
        return read;
    if (outcome looked = look_at_log(report); !looked)
        return looked;
    pgs_server &server = report.server;
    server.conninfo = options.conninfo;
    server.slot = options.slot;
    server.publication = options.publication;
    server.timeout_ms = server.patience_ms = int64_t{1000} * options.timeout_s;
    report.relations.tables.config = &report.config;
    report.relations.tables.default_policy = feed_server_policy(report.config);
    report.relations.encoding = report.encoding;
    report.relations.columns_max = SIZE_MAX; // the report is about all
    feed_names &names = report.relations.names;
    if (outcome read = feed_names_open(names, report.config.log_directory, names.mode); !read)
        return read;
    names.path.clear(); // new ones are not kept
    return {};
}

static outcome connect(pgk_report &report)
{
    pgs_server &server = report.server;
    outcome opened = pgs_connect_sql(server);
    if (opened.kind() == OUTCOME_LOST)
        return outcome_failed("cannot connect: %s; %s", opened.text().c_str(),
                              server.remedy != nullptr ? server.remedy : PGS_CONNECT_REMEDY);
    pgs_result result;
    if (opened)
        opened =
            pgs_command(server, server.sql.get(), result, "SET default_transaction_read_only = on");
    return opened;
}

static outcome look(pgk_report &report)
{
    outcome done = connect(report);
    if (done)
        done = pgk_look_at_server(report);
    if (done)
        done = pgk_look_at_tables(report);
    if (done)
        done = pgk_look_at_identities(report);
    if (done)
        done = pgk_look_at_reading(report);
    if (done && report.options.scan)
        done = pgk_scan(report);
    if (done)
        pgk_choose_widths(report);
    return done;
}

// ---- the configuration that is written

static outcome cannot_write(const std::string &path, const char *what)
{
    return outcome_failed("%s: cannot %s the configuration file: %s", path.c_str(), what,
                          strerror(errno));
}

// A file that is there is somebody's work.
static outcome write_config(const pgk_report &report)
{
    const std::string path = report.options.write_config;
    constexpr mode_t mode = 0666; // less the umask
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0 && errno == EEXIST)
        return outcome_failed("%s: there is a file of this name already: name another one with "
                              "--write-config",
                              path.c_str());
    if (fd < 0)
        return cannot_write(path, "make");
    const std::string text = pgk_config(report, path);
    const bool good = fwu_write_all(fd, text.data(), text.size(), 0) == 0 && fsync(fd) == 0;
    const int write_errno = errno;
    close(fd);
    if (good)
        return {};
    unlink(path.c_str());
    errno = write_errno;
    return cannot_write(path, "write");
}

// before: a look that has found out that the server cannot convert its texts; null: none.
static outcome check(const pgb_options &options, const pgs_server *before)
{
    pgk_report report{.options = options};
    outcome done = set_up(report);
    if (before != nullptr) {
        report.server.texts = before->texts;
        report.server.encoding = before->encoding;
    }
    if (done)
        done = look(report);
    if (done.kind() == OUTCOME_LOST && before == nullptr && report.server.texts != nullptr) {
        tell("%s", done.text().c_str());
        return check(options, &report.server);
    }
    if (done.kind() == OUTCOME_LOST)
        done = outcome_failed("%s", done.text().c_str());
    if (!done)
        return done;
    const std::string text = options.json ? pgk_json(report) : pgk_text(report);
    (void)fputs(text.c_str(), stdout); // a failure is told at the end of the program
    if (options.write_config != nullptr)
        done = write_config(report);
    if (!done)
        return done;
    return pgk_starts(report) ? OUTCOME_OK : OUTCOME_FAILED;
}

outcome pgk_check(const pgb_options &options)
{
    stop_signal_install();
    signal(SIGPIPE, SIG_IGN); // a dead server is an error of the connection
    return check(options, nullptr);
}
