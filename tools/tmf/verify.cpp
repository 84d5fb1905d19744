// tmf verify: a message file's counters and maps against its records, with the offset of
// each disagreement.
#include "tools/tmf/tmf_tool.h"
#include "tools/tmf/walk.h"
#include "util/json_text.h"

#include <cstdio>
#include <unistd.h>

struct verify_options {
    const char *file = nullptr;
    bool json = false;
};
static verify_options options;

static constexpr cli_option rows[] = {
    {"--json", CLI_FLAG, &options.json},
    {"FILE", TMFT_ONE_FILE, &options.file},
};

// Output is kept back, since the file's users wait while it is looked at, but no more of it.
static constexpr size_t most_kept = 16 * 1024 * 1024;

struct verify_state {
    tmft_facts facts;
    std::string out;
    int64_t disagreements = 0;
    int64_t records = 0;
    int64_t uncounted = 0;
    int64_t first = 0; // where the records begin that were looked at, and end
    int64_t end = 0;
};

// ---- disagreements

static void disagree(verify_state &state, int64_t at, const std::string &text, int64_t length = 0)
{
    state.disagreements++;
    const std::string where = std::to_string(at);
    if (options.json) {
        state.out += state.disagreements == 1 ? "" : ",";
        state.out += "{\"offset\":" + where + ",\"length\":";
        state.out += length == 0 ? "null" : std::to_string(length);
        state.out += ",\"text\":" + json_text(text) + "}";
    } else {
        if (state.disagreements == 1)
            state.out += std::string(options.file) + "\n";
        state.out += "    " + where;
        state.out += length == 0 ? "" : " to " + std::to_string(at + length);
        state.out += ": " + text + "\n";
    }
    if (state.out.size() > most_kept) {
        fputs(state.out.c_str(), stdout);
        state.out.clear();
    }
}

static void check_area(verify_state &state)
{
    const tmf_common &common = state.facts.common;
    for (const tmf_fixed_number &number : TMF_FIXED_NUMBERS) {
        if (number.in(common) != number.value)
            disagree(state, number.at,
                     std::string(number.name) + " is " + std::to_string(number.in(common)) +
                         ", and is " + std::to_string(number.value) + " in every message file");
    }
    const int64_t size = state.facts.size;
    const int64_t end = tmft_stated_end(state.facts);
    const int64_t first = common.read_offset;
    if (end < TMF_DATA_START)
        disagree(state, offsetof(tmf_common, write_offset),
                 "the records end at " + std::to_string(end) + ", before any can begin, at " +
                     std::to_string(TMF_DATA_START));
    else if (end > size &&
             end > TMF_DATA_START) // else its maker was killed before the slots were there
        disagree(state, offsetof(tmf_common, write_offset),
                 "the records end at " + std::to_string(end) + ", behind the end of the file, " +
                     std::to_string(size));
    if (first < TMF_DATA_START)
        disagree(state, offsetof(tmf_common, read_offset),
                 "the oldest record is at " + std::to_string(first) +
                     ", before any can begin, at " + std::to_string(TMF_DATA_START));
    else if (end >= TMF_DATA_START && first > end)
        disagree(state, offsetof(tmf_common, read_offset),
                 "the oldest record is at " + std::to_string(first) + ", the records end at " +
                     std::to_string(end));
}

static void check_users(verify_state &state)
{
    const tmf_common &common = state.facts.common;
    const struct {
        size_t at;
        const char *kind;
        int counted;
        size_t mapped;
        size_t map_at;
    } table[] = {
        {offsetof(tmf_common, num_readers), "readers", common.num_readers,
         state.facts.readers.size(), offsetof(tmf_common, reader_map)},
        {offsetof(tmf_common, num_writers), "writers", common.num_writers,
         state.facts.writers.size(), offsetof(tmf_common, writer_map)},
    };
    for (const auto &row : table) {
        if (row.counted != static_cast<int>(row.mapped))
            disagree(state, static_cast<int64_t>(row.at),
                     std::to_string(row.counted) + " " + row.kind + " are counted, the map at " +
                         std::to_string(row.map_at) + " has " + std::to_string(row.mapped));
    }
}

// ---- records

static outcome check_records(verify_state &state, int fd)
{
    tmft_walk walk = tmft_walk_by_area(fd, state.facts);
    state.first = walk.at;
    tmft_piece piece;
    for (;;) {
        if (outcome done = tmft_next_piece(walk, piece); !done)
            return done;
        if (piece.kind == TMFT_PIECE_END)
            break;
        state.records += piece.kind == TMFT_PIECE_RECORD ? 1 : 0;
        if (!piece.wrong.empty())
            disagree(state, piece.at, piece.wrong, piece.length);
    }
    state.end = walk.at;
    const int64_t counted = state.facts.common.record_count;
    if (state.records != counted)
        disagree(state, offsetof(tmf_common, record_count),
                 tmft_records_text(counted) + (counted == 1 ? " is" : " are") + " counted, " +
                     std::to_string(state.records) + (state.records == 1 ? " is" : " are") +
                     " there");
    if (outcome done = tmft_walk_uncounted(walk); !done)
        return done;
    for (;;) {
        if (outcome done = tmft_next_piece(walk, piece); !done)
            return done;
        if (piece.kind != TMFT_PIECE_RECORD)
            return {};
        state.uncounted++;
    }
}

// ---- the command

static std::string range_text(const verify_state &state)
{
    return tmft_records_text(state.records) + " from " + std::to_string(state.first) + " to " +
           std::to_string(state.end);
}

static void put_end(verify_state &state)
{
    if (options.json) {
        state.out += std::string("],\"sound\":") + (state.disagreements == 0 ? "true" : "false");
        const auto number = [&](const char *name, int64_t value) {
            state.out += std::string(",\"") + name + "\":" + std::to_string(value);
        };
        number("records", state.records);
        number("first", state.first);
        number("end", state.end);
        number("size", state.facts.size);
        number("uncounted", state.uncounted);
        state.out += "}\n";
        return;
    }
    if (state.disagreements == 0)
        state.out += std::string(options.file) + ": sound, " + range_text(state) + "\n";
    else
        state.out += "    " + std::to_string(state.disagreements) +
                     (state.disagreements == 1 ? " disagreement; " : " disagreements; ") +
                     range_text(state) + "\n";
    if (state.uncounted != 0)
        state.out += "    behind   " + tmft_records_text(state.uncounted) +
                     " that the file does not count\n";
}

static outcome verify(int fd, verify_state &state)
{
    if (options.json)
        state.out += "{\"file\":" + json_text(options.file) + ",\"disagreements\":[";
    check_area(state);
    check_users(state);
    outcome done = check_records(state, fd);
    put_end(state);
    return done;
}

static outcome run()
{
    int fd = -1;
    verify_state state;
    outcome done = tmft_open_still(fd, options.file);
    if (done)
        done = tmft_look_at(fd, state.facts);
    if (done)
        done = verify(fd, state);
    if (fd >= 0)
        close(fd);
    if (!done)
        return tmft_complain(options.file, done.text().c_str());
    fputs(state.out.c_str(), stdout);
    return state.disagreements == 0 ? outcome() : outcome(OUTCOME_FAILED);
}

static const char help[] =
    "Usage: tmf verify [--json] FILE\n"
    "\n"
    "Compares a message file's counters and maps with its records, one by one to their\n"
    "end, and tells every disagreement with its offset.  Nothing is registered or\n"
    "changed; readers and writers wait meanwhile.  tmf repair mends a file, tmf salvage\n"
    "brings its records into another one.\n"
    "\n"
    "  --json   one JSON object\n"
    "  --help   print this (also -h)\n"
    "\n"
    "Exit status: 0 the file is sound; 1 it is not, could not be read, or is not a\n"
    "message file; 2 wrong command line.\n";

constinit const cli_command tmf_verify_row = {
    .name = "verify",
    .summary = "compares counters and maps with the records",
    .run = run,
    .options = rows,
    .help = help,
};
