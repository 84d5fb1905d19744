// Lines are collected up to a write's worth, however many or few transactions that are; a large
// transaction is written out in pieces, a small one no later than when there is nothing more to
// read.
#include "tools/fwlog/json_output.h"

#include "tools/fwlog/following.h"
#include "tools/fwlog/selection.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

fwlog_json_form fwlog_json;

bool fwlog_take_numbers(const char *word)
{
    const std::string_view form = word;
    fwlog_json.numbers = true;
    fwlog_json.form.text_numbers = form == "text";
    return form == "text" || form == "json";
}

outcome fwlog_json_check(bool hex, fwlog_text text)
{
    if (fwlog_json.wanted && hex)
        return cli_usage("option does not go with --json", "--hex");
    if (fwlog_json.wanted && fwlog_state.acknowledge && fwlog_state.file == nullptr)
        return cli_usage("option needs --state", "--ack");
    if (fwlog_json.wanted)
        return {};
    const bool range = text == FWLOG_TEXT_RANGE;
    const fwlog_selection &selected = fwlog_selected;
    const struct {
        const char *name;
        bool given;
    } needing[] = {
        {"--source-names", fwlog_json.form.source_names},
        {"--numbers", fwlog_json.numbers},
        {"--dset", !selected.patterns.empty()},
        {"--after", selected.after.sequence != 0},
        {"--state", fwlog_state.file != nullptr},
        {"--ack", fwlog_state.acknowledge},
        {"--from", !range && selected.from.sequence != 0},
        {"--to", !range && selected.to.sequence != 0},
    };
    for (const auto &row : needing)
        if (row.given)
            return cli_usage("option needs --json", row.name);
    return {};
}

// A run in progress.
struct json_state {
    change_reader &reader;
    const fwlog_json_run &run;
    change_json json;
    std::string out;
    uint64_t left; // transactions
    fwu_watch watch;
};

static outcome write_out(json_state &state)
{
    return state.run.consumer != nullptr ? fwlog_consumer_write(*state.run.consumer, state.out)
                                         : fwlog_write_out(state.out);
}

// Whether nothing behind the transaction in hand is wanted.
static bool is_range_over(const change_reader &reader)
{
    const fwu_position &to = reader.range.to;
    return to.tag != 0 && to.generation != 0 && to <= reader.transaction.position;
}

static bool is_over(const json_state &state)
{
    return state.left == 0 || is_range_over(state.reader) || fwu_stop != 0 ||
           (state.run.consumer != nullptr && fwlog_consumer_gone(*state.run.consumer));
}

// A transaction has ended.
static outcome end_transaction(json_state &state, change_found found)
{
    change_json_end(state.json, state.out, true);
    if (state.reader.range.after < state.reader.transaction.position)
        state.left--;
    if (state.run.consumer != nullptr)
        if (outcome kept =
                fwlog_consumer_end(*state.run.consumer, state.out, state.reader.transaction);
            !kept)
            return kept;
    // What waits is not to wait while transactions are passed over of which nothing is wanted.
    if (found == CHANGE_PASSED || state.out.size() >= FWLOG_WRITE_AFTER)
        return write_out(state);
    return {};
}

static outcome wait_for_more(json_state &state)
{
    if (outcome written = write_out(state); !written)
        return written;
    fwu_log &log = state.reader.log;
    return state.run.consumer != nullptr
               ? fwlog_consumer_wait(*state.run.consumer, log, state.watch)
               : fwlog_wait_for_more(log, state.watch);
}

// Goes on to the next change, or what there is instead of it; more: there may be another.
static outcome step(json_state &state, bool &more)
{
    change next;
    const change_found found = change_next(state.reader, next);
    switch (found) {
    case CHANGE_FOUND:
        if (state.run.consumer != nullptr)
            fwlog_consumer_line(*state.run.consumer, state.out, next, state.reader.transaction);
        change_json_put(state.json, state.out, next, state.reader.transaction);
        return state.out.size() >= FWLOG_WRITE_AFTER ? write_out(state) : outcome();
    case CHANGE_COMMITTED:
    case CHANGE_PASSED: {
        outcome done = end_transaction(state, found);
        more = !is_over(state);
        return done;
    }
    case CHANGE_NO_MORE:
        more = state.run.follow && !is_over(state);
        return more ? wait_for_more(state) : outcome();
    // A transaction that is broken off has lines, none of which is its last.
    case CHANGE_RANGE_ENDED:
        change_json_end(state.json, state.out, false);
        more = false;
        return {};
    default:
        change_json_end(state.json, state.out, false);
        outcome written = write_out(state);
        return written ? OUTCOME_FAILED : std::move(written);
    }
}

outcome fwlog_json_put(change_reader &reader, const fwlog_json_run &run)
{
    json_state state = {.reader = reader,
                        .run = run,
                        .json = change_json(fwlog_json.form),
                        .out = {},
                        .left = run.transactions,
                        .watch = {}};
    if (run.follow)
        fwu_watch_open(state.watch, reader.log.directory);
    outcome done;
    bool more = !is_over(state);
    while (more && done)
        done = step(state, more);
    fwu_watch_close(state.watch);
    if (done)
        done = write_out(state);
    if (done && fwu_stop != 0)
        done = fwlog_stopped();
    if (run.consumer != nullptr)
        done = fwlog_consumer_close(*run.consumer, std::move(done));
    return done;
}

outcome fwlog_json_selected(const char *cfg, fwlog_json_run run)
{
    std::optional<fwlog_consumer> consumer;
    if (fwlog_state.file != nullptr) {
        run.consumer = &consumer.emplace();
        if (outcome opened = fwlog_consumer_open(*consumer, cfg); !opened)
            return opened;
    }
    change_reader reader;
    if (outcome opened = fwlog_open_selected(reader, cfg); !opened)
        return opened;
    return fwlog_json_put(reader, run);
}
