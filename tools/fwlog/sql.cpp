// fwlog sql: the changes of a log as statements that make them in another database.
//
// A transaction reaches standard output whole, or at least without its end, so that the
// database never applies part of it.
#include "changes/sql.h"

#include "changes/sql_dialect.h"
#include "tools/fwlog/following.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/selection.h"
#include "util/outcome.h"

#include <string_view>

// A transaction whose text is longer is written out in parts.
constexpr size_t HOLD_MAX = size_t{1} << 20;

struct sql_command_options {
    const char *cfg = nullptr;
    bool follow = false;
    sql_options sql;
};
static sql_command_options options;

static bool take_dialect(const char *word)
{
    options.sql.dialect = sql_dialect_of(word);
    return options.sql.dialect != nullptr;
}

static bool take_position_table(const char *word)
{
    options.sql.position_table = word;
    return *word != '\0';
}

static bool take_mark(sql_on_mark &what, std::string_view word, bool may_apply)
{
    if (word == "apply" && may_apply)
        what = SQL_APPLY;
    else if (word == "skip")
        what = SQL_SKIP;
    else if (word == "stop")
        what = SQL_STOP;
    else
        return false;
    return true;
}

static bool take_truncate(const char *word)
{
    return take_mark(options.sql.truncate, word, true);
}

static bool take_gap(const char *word)
{
    return take_mark(options.sql.gap, word, false);
}

static bool take_key(const char *word)
{
    const std::string_view text = word;
    const size_t end = text.find('=');
    if (end == 0 || end == text.npos)
        return false;
    sql_key key{.dataset = std::string(text.substr(0, end)), .columns = {}};
    for (size_t at = end; at != text.npos;) {
        const size_t next = text.find(',', at + 1);
        key.columns.emplace_back(text.substr(at + 1, next == text.npos ? next : next - at - 1));
        if (key.columns.back().empty())
            return false;
        at = next;
    }
    options.sql.keys.push_back(std::move(key));
    return true;
}

static bool take_rename(const char *word)
{
    const std::string_view text = word;
    const size_t end = text.find('=');
    if (end == 0 || end == text.npos || end + 1 == text.size())
        return false;
    options.sql.layouts.renames.emplace_back(text.substr(0, end), text.substr(end + 1));
    return true;
}

static constexpr cli_kind DIALECT = {.word = "postgresql|sqlite",
                                     .lacking = "option lacks its dialect",
                                     .bad = "not a dialect (postgresql, sqlite)"};
static constexpr cli_kind TABLE = {
    .word = "TABLE", .lacking = "option lacks its table", .bad = "not a table's name"};
static constexpr cli_kind TRUNCATE = {.word = "apply|stop|skip",
                                      .lacking = "option lacks its word",
                                      .bad = "not apply, stop or skip"};
static constexpr cli_kind GAP = {
    .word = "stop|skip", .lacking = "option lacks its word", .bad = "not stop or skip"};
static constexpr cli_kind KEY = {.word = "DATASET=ITEMS",
                                 .lacking = "option lacks its key",
                                 .bad = "not a dataset and its key (ORDERS=ORDER-NO,LINE-NO)"};
static constexpr cli_kind RENAME = {.word = "OLD=NEW",
                                    .lacking = "option lacks its columns",
                                    .bad = "not two columns (remark=note)"};
static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    {"--dialect", DIALECT, take_dialect},
    FWLOG_DSET,
    FWLOG_FROM,
    FWLOG_TO,
    FWLOG_AFTER,
    {"-f", CLI_FLAG, &options.follow},
    {"--position-table", TABLE, take_position_table},
    {"--create-tables", CLI_FLAG, &options.sql.create_tables},
    {"--truncate", TRUNCATE, take_truncate},
    {"--gap", GAP, take_gap},
    {"--key", KEY, take_key},
    {"--rename", RENAME, take_rename},
    {"--drop-columns", CLI_FLAG, &options.sql.layouts.drop_columns},
    {"--keep-tables", CLI_FLAG, &options.sql.keep_tables},
};

struct sql_state {
    change_reader before; // the part of the log whose layouts the tables have
    change_reader reader;
    fwu_watch watch;
    sql_writer writer{options.sql};
    std::string out;       // whole transactions, and what there is of the one in hand
    size_t whole = 0;      // length of the whole ones
    bool inside = false;   // a transaction is in hand
    bool in_parts = false; // ... and has been written out in part
    bool placed = false;   // the log file in which reading began is known
};

// Gives up the transaction in hand and writes out what is whole.
static outcome give_up(sql_state &state, outcome why)
{
    state.out.resize(state.whole);
    if (state.in_parts)
        sql_give_up(state.out);
    if (why.kind() == OUTCOME_STOPPED && state.out.empty())
        return why;
    if (outcome written = fwlog_write_out(state.out); !written)
        return why.kind() == OUTCOME_STOPPED ? std::move(why) : std::move(written);
    return why;
}

// The tables have the layouts that stand in the log before the position to begin behind, where
// the transaction that ends there was the last one.
static outcome learn(sql_state &state, const fwu_config &config)
{
    if (change_open(
            state.before, config,
            {.after = {}, .from = {}, .to = fwlog_selected.after, .dataset = fwlog_selects}) != 0)
        return OUTCOME_FAILED;
    change next;
    for (;;) {
        if (fwu_stop != 0)
            return fwlog_stopped();
        switch (change_next(state.before, next)) {
        case CHANGE_FAILED:
            return OUTCOME_FAILED;
        case CHANGE_NO_MORE:
        case CHANGE_RANGE_ENDED:
            return {};
        case CHANGE_FOUND:
            if (next.dataset == nullptr)
                break;
            if (outcome done = sql_learn(state.writer, *next.dataset); !done)
                return done;
            break;
        default:
            sql_pass(state.writer, state.before.transaction);
            break;
        }
    }
}

// Where in the log a transaction stands: reading has to begin with a whole one.
static outcome look_at_place(sql_state &state)
{
    const fwu_cursor &cursor = state.reader.log.cursor;
    const fwu_position &after = fwlog_selected.after;
    const fwu_position here{cursor.file.generation, cursor.file.sequence, 0};
    const fwu_position start = after.sequence != 0 ? after : fwlog_selected.from;
    const bool given = start.sequence == here.sequence &&
                       (start.generation == 0 || start.generation == here.generation);
    const int32_t first = after.sequence != 0 ? start.tag + 1 : start.tag;
    if (given && cursor.tx_first_tag < first && first <= cursor.tx_last_tag)
        return outcome_failed(
            "position %s stands inside the transaction %s to %d, which can only "
            "be applied whole: begin behind it or behind the one before",
            fwu_position_text(start).c_str(),
            fwu_position_text({here.generation, here.sequence, cursor.tx_first_tag}).c_str(),
            cursor.tx_last_tag);
    if (!state.placed && after.sequence == 0)
        sql_begin_behind(state.writer, here);
    state.placed = true;
    return {};
}

static outcome take_change(sql_state &state, const change &of)
{
    if (!state.inside)
        if (outcome done = look_at_place(state); !done)
            return done;
    state.inside = true;
    const outcome done = sql_put(state.writer, state.out, of, state.reader.transaction);
    for (const std::string &note : state.writer.notes)
        tell("%s", note.c_str());
    state.writer.notes.clear();
    if (!done)
        return outcome_failed("position %s: %s", fwu_position_text(of.position).c_str(),
                              done.text().c_str());
    if (state.out.size() < HOLD_MAX)
        return {};
    state.in_parts = true;
    state.whole = 0;
    return fwlog_write_out(state.out);
}

static outcome take_end(sql_state &state)
{
    sql_end(state.writer, state.out);
    state.whole = state.out.size();
    state.inside = false;
    state.in_parts = false;
    if (state.out.size() < FWLOG_WRITE_AFTER)
        return {};
    state.whole = 0;
    return fwlog_write_out(state.out);
}

static outcome wait_for_more(sql_state &state)
{
    state.whole = 0;
    if (outcome written = fwlog_write_out(state.out); !written || !options.follow)
        return written;
    return fwlog_wait_for_more(state.reader.log, state.watch);
}

// One step; ended: nothing more comes.
static outcome step(sql_state &state, bool &ended)
{
    change next;
    switch (change_next(state.reader, next)) {
    case CHANGE_FOUND:
        return take_change(state, next);
    case CHANGE_COMMITTED:
        return take_end(state);
    case CHANGE_PASSED:
        return look_at_place(state);
    case CHANGE_NO_MORE:
        ended = !options.follow;
        return wait_for_more(state);
    case CHANGE_RANGE_ENDED:
        ended = true;
        return {};
    default:
        return OUTCOME_FAILED;
    }
}

static outcome put_all(sql_state &state)
{
    outcome done;
    bool ended = false;
    while (done && !ended)
        done = fwu_stop != 0 ? fwlog_stopped() : step(state, ended);
    return give_up(state, std::move(done));
}

static outcome run()
{
    const sql_options &sql = options.sql;
    if (sql.dialect == nullptr)
        return cli_usage("name the database's dialect with", "--dialect");
    if (!sql.position_table.empty() && fwlog_selected.from.sequence != 0)
        return cli_usage("with --position-table begin at the log's beginning or with --after, not",
                         "--from");
    fwu_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    options.sql.selection = fwlog_selection_text();
    sql_state state;
    const fwu_signals signals;
    if (fwlog_selected.after.sequence != 0)
        if (outcome done = learn(state, config); !done)
            return done;
    if (outcome done = fwlog_open_selected(state.reader, options.cfg); !done)
        return done;
    if (options.follow)
        fwu_watch_open(state.watch, state.reader.log.directory);
    outcome done = put_all(state);
    fwu_watch_close(state.watch);
    return done;
}

static const char help[] =
    "Usage: fwlog sql [-cfg FILE] --dialect postgresql|sqlite [--dset PATTERN ...]\n"
    "                 [--from POSITION] [--to POSITION] [--after POSITION] [-f]\n"
    "                 [--position-table TABLE] [--create-tables]\n"
    "                 [--truncate apply|stop|skip] [--gap stop|skip]\n"
    "                 [--key DATASET=ITEMS ...] [--rename OLD=NEW ...] [--drop-columns]\n"
    "                 [--keep-tables]\n"
    "\n"
    "Prints the changes of the forward log as SQL statements that make them in another\n"
    "database, transaction by transaction.\n"
    "\n"
    "  -cfg FILE            configuration file (else the one named by FWUTIL_CFG, else\n"
    "                       fwutil.cfg), which names the log directory\n"
    "  --dialect postgresql|sqlite\n"
    "                       the database that the statements are for\n"
    "  --dset PATTERN       take the datasets of this pattern only (SALES:ORDERS, SALES:,\n"
    "                       @-LINES); may be repeated\n"
    "  --from POSITION      begin with the log file of this number (\"25\", \"1-25\"), or\n"
    "                       with this entry (\"1-25.340\": generation, number, tag)\n"
    "  --to POSITION        end with that log file or entry\n"
    "  --after POSITION     begin behind this entry, where the database is already\n"
    "  -f                   go on with each transaction that is committed, until SIGINT\n"
    "                       or SIGTERM\n"
    "  --position-table TABLE\n"
    "                       keep in this table of the database how far it is, so that\n"
    "                       each transaction is applied exactly once\n"
    "  --create-tables      make tables that are not there\n"
    "  --truncate apply|stop|skip\n"
    "                       where a table was truncated: empty it, stop there (when not\n"
    "                       given), or pass over it\n"
    "  --gap stop|skip      where changes are missing: stop there (when not given), or\n"
    "                       pass over it\n"
    "  --key DATASET=ITEMS  the items, or columns, that tell a dataset's rows apart; may be\n"
    "                       repeated\n"
    "  --rename OLD=NEW     where column OLD is gone and NEW is new, it is the same; may be\n"
    "                       repeated\n"
    "  --drop-columns       where columns are gone and others are new, none is the same\n"
    "  --keep-tables        change no table where a dataset gets a new layout\n"
    "  --help               print this (also -h)\n"
    "\n"
    "Exit status: 0 done; 1 error or damage; 2 wrong command line; 128 + signal number\n"
    "when SIGINT or SIGTERM ended it behind a whole transaction.\n";

constinit const cli_command fwlog_sql_row = {
    .name = "sql",
    .summary = "prints changes as statements for another database",
    .run = run,
    .options = rows,
    .help = help,
};
