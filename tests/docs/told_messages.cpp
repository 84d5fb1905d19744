// What is no message is known by the call that it goes to, by its file, by being SQL or help, and
// the rest by name.
#include "tests/docs/told_messages.h"

#include <algorithm>
#include <regex>
#include <set>

static const std::vector<std::string> FOLDERS = {"driver", "capture", "ascii",   "fwutil", "util",
                                                 "feed",   "changes", "records", "ship",   "tools"};

// Reports, dumps, the log of a run, questions to the server, comparisons.
static const std::set<std::string> other_calls = {
    "printf",       "logmsg",      "metric",       "single",      "per_file",        "dumprec",
    "put_comment",  "comment",     "put_rows",     "puts",        "show_list_total", "pgs_query",
    "pgs_ask_rows", "pgp_ask",     "pgs_sessions", "pgs_command", "pgs_try",         "run",
    "ask",          "sql_type_is", "starts_with",  "rfind",       "put_text",
};

// Two words are a message in these, and the name of something elsewhere.
static const std::set<std::string> telling_calls = {
    "cli_usage",        "fwu_error",      "fwu_warn",      "fwu_note",
    "fwu_file_error",   "outcome_failed", "outcome_bad",   "tell",
    "set_error",        "set_error_f",    "set_error_emf", "set_error_mf",
    "set_error_detail", "refuse",         "tmft_complain", "judge",
};

// Help, reports, SQL, names of types and columns.
static const std::set<std::string> other_files = {
    "driver/help.cpp",
    "driver/run_state_text.cpp",
    "fwutil/fwu_report.cpp",
    "changes/sql_dialect.cpp",
    "feed/postgresql/facts.cpp",
    "feed/postgresql/identity.cpp",
    "feed/postgresql/parameters.cpp",
    "feed/postgresql/published.cpp",
    "feed/postgresql/types.cpp",
    "records/header.cpp",
    "tools/fwlog/layout_columns.cpp",
    "tools/fwlog/layout_copybook.cpp",
    "tools/fwlog/print.cpp",
    "tools/fwlog/record_layout.cpp",
    "tools/tmf/info.cpp",
};

// Messages of such files after all.
static const std::set<std::string> told_there = {
    "at offset ... stands",
    "where these options have",
    "item ...: a text capture file has no column for a number of ... bytes; leave out -ascii",
    "the server does not tell yet what the types of table ... are",
};

// Errors on standard output.
static const std::set<std::string> told_by_printf = {
    "ERROR encountered during processing.",
    "Error \"...\" removing file",
};

static const std::set<std::string> other_texts = {
    // first lines of files
    "fwlog aside 1",
    "fwlog names 1",
    "fwutil acknowledged 1",
    "fwutil readers 1",
    "fwutil status 1",
    "fwutil status 2",
    // lines whose length is measured
    "1 position 0001-00000025.0000000340 time 2026-11-21 03:33:52.123456 UTC crc 1a2b3c4d",
    "position 0001-00000025.0000000340 time 2026-11-21 03:33:52.123456 UTC lsn 0000000001BC8080 "
    "log 0123456789abcdef0123456789abcdef",
    "1 synced at 00000600 length 00000123 text 1a2b3c4d crc 5e6f7a8b",
    // what programs are for
    "Brings forward logs to other hosts, through a stream of a NATS server.",
    "Shows, reads, writes and mends message files.",
    "Writes forward logs from PostgreSQL, and tells about them.",
    // parts of statements
    "publish = 'insert, update, delete, truncate')",
    "ALTER SYSTEM SET wal_level = logical",
};

static bool is_statement(const std::string &text)
{
    static const std::regex statement(
        R"(SELECT (?!pg_(drop|reload))|COLLATE|AS \(SELECT|\bWITH \w* ?\(|(text|TEXT) NOT NULL|CHECK \("pending|)"
        R"(^(SET|UPDATE|CASE|CREATE|WITH "|THEN|AND|OR|WHERE|FROM|EXISTS|BEGIN|RETURNING|LEFT)\b|)"
        R"(^(SAVEPOINT|ROLLBACK|RELEASE|CONSTRAINT|CAST|regclass|pg_catalog|synchronous_commit)\b|)"
        R"(^(t|p) (AS|WHERE|JOIN)|^q ON|^AS v|^[a-z]\.[a-z]+ |^'ALTER|^= 'NaN'|^max\(|^# )");
    return std::regex_search(text, statement);
}

// Of two letters and more.
static size_t words_of(const std::string &text)
{
    size_t words = 0;
    size_t letters = 0;
    for (const char c : text) {
        letters = isalpha(static_cast<unsigned char>(c)) != 0 ? letters + 1 : 0;
        words += letters == 2 ? 1U : 0U;
    }
    return words;
}

static bool is_help(const std::string &text)
{
    return text.rfind("Usage: ", 0) == 0;
}

static bool is_told(const source_message &message)
{
    const auto is_other = [](const std::string &call) { return other_calls.count(call) != 0; };
    if (told_there.count(message.text) != 0 || told_by_printf.count(message.text) != 0)
        return true;
    if (std::any_of(message.callers.begin(), message.callers.end(), is_other) ||
        other_files.count(message.file) != 0 || other_texts.count(message.text) != 0)
        return false;
    const bool telling =
        !message.callers.empty() && telling_calls.count(message.callers.back()) != 0;
    return (words_of(message.text) > 2 || telling) && !is_statement(message.text);
}

std::vector<source_message> told_messages()
{
    std::vector<source_message> told;
    bool behind_help = false; // comes what a subcommand is for
    for (const source_message &message : messages_in(FOLDERS)) {
        if (!behind_help && !is_help(message.text) && is_told(message))
            told.push_back(message);
        behind_help = is_help(message.text);
    }
    return told;
}

std::vector<std::string> told_messages_unused()
{
    std::set<std::string> left = other_texts;
    left.insert(other_files.begin(), other_files.end());
    left.insert(told_there.begin(), told_there.end());
    left.insert(told_by_printf.begin(), told_by_printf.end());
    for (const source_message &message : messages_in(FOLDERS)) {
        left.erase(message.text);
        left.erase(message.file);
    }
    return {left.begin(), left.end()};
}
