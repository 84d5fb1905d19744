// The text of a run's state: one JSON object in one line, or Prometheus's text format.
#include "driver/help.h"
#include "driver/run_state.h"
#include "util/json_text.h"
#include "util/utf8.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

constexpr int64_t US_PER_S = 1'000'000;

static std::string number(int64_t value)
{
    return std::to_string(value);
}

static bool is_none(const run_position &at)
{
    return at.generation == 0 && at.sequence == 0 && at.tag == 0;
}

static std::string position_text(const run_position &at)
{
    char text[48];
    snprintf(text, sizeof text, "%d-%d.%d", at.generation, at.sequence, at.tag);
    return text;
}

// "2026-11-21T03:33:52.123456Z", in quotes, or null.
static std::string time_or_null(int64_t time_us)
{
    char day[32];
    char text[64];
    const auto seconds = static_cast<time_t>(time_us / US_PER_S);
    struct tm tm = {};
    if (time_us <= 0 || gmtime_r(&seconds, &tm) == nullptr ||
        strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &tm) == 0)
        return "null";
    snprintf(text, sizeof text, "\"%s.%06dZ\"", day, static_cast<int>(time_us % US_PER_S));
    return text;
}

static std::string position_or_null(const run_position &at)
{
    return is_none(at) ? "null" : '"' + position_text(at) + '"';
}

static void member(std::string &out, const char *name, const std::string &value)
{
    if (out.back() != '{')
        out += ',';
    out += '"';
    out += name;
    out += "\":" + value;
}

static std::string file_json(const run_file &file)
{
    std::string out = "{";
    member(out, "name", json_text(file.name));
    member(out, "format", json_text(file.format));
    member(out, "records", number(file.told.records));
    member(out, "bytes", number(file.told.bytes));
    member(out, "failures", number(file.told.failures));
    member(out, "last_record", time_or_null(file.told.last_us));
    member(out, "last_change", time_or_null(file.told.logtime * US_PER_S));
    return out + "}";
}

std::string run_state_json(const run_state &state)
{
    std::string out = "{";
    member(out, "program", "\"Kestro\"");
    member(out, "state", json_text(state.state));
    member(out, "error", state.error.empty() ? "null" : json_text(state.error));
    member(out, "error_time", time_or_null(state.error_us));
    member(out, "error_position", position_or_null(state.error_at));
    member(out, "errors", number(state.errors));
    member(out, "pid", number(getpid()));
    member(out, "process", json_text(state.boot));
    member(out, "version", json_text(PROGRAM_VERSION));
    member(out, "started", time_or_null(state.started_us));
    member(out, "updated", time_or_null(state.updated_us));
    member(out, "config", json_text(state.config));
    member(out, "status", json_text(state.status));
    member(out, "position", position_or_null(state.position));
    member(out, "records", number(state.records));
    std::string files;
    for (const run_file &file : state.files)
        files += (files.empty() ? "" : ",") + file_json(file);
    member(out, "files", "[" + files + "]");
    return out + "}\n";
}

std::string run_state_line(const run_state &state)
{
    std::string out = state.state;
    if (!is_none(state.position))
        out += " at " + position_text(state.position);
    out += ", " + number(state.records) + " records";
    if (!state.error.empty())
        out += "; " + state.error;
    return out;
}

// A label's value: what its quotes would end at is escaped, what is not UTF-8 replaced.
static std::string label(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        uint32_t code = 0;
        size_t length = utf8_decode(text, code);
        if (text[0] == '\\' || text[0] == '"')
            out += std::string("\\") + text[0];
        else if (text[0] == '\n')
            out += "\\n";
        else if (length == 0)
            out += "\xEF\xBF\xBD";
        else
            out += text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

static void metric(std::string &out, const char *name, const char *type, const char *help)
{
    out += std::string("# HELP ") + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
}

// One sample.  Each has the file of the position, which no two runs have in common: the
// collector puts the files of all runs of a machine together.
static void sample(std::string &out, const run_state &state, const char *name,
                   const std::string &more, const std::string &value)
{
    out +=
        std::string(name) + "{status=\"" + label(state.status) + '"' + more + "} " + value + '\n';
}

static void single(std::string &out, const run_state &state, const char *name, const char *type,
                   const char *help, const std::string &value)
{
    metric(out, name, type, help);
    sample(out, state, name, "", value);
}

static std::string seconds(int64_t time_us)
{
    char text[48];
    snprintf(text, sizeof text, "%.3f",
             static_cast<double>(time_us) / static_cast<double>(US_PER_S));
    return text;
}

// One metric with a sample for each capture file; two of them may have one name.
template <typename Value>
static void per_file(std::string &out, const run_state &state, const char *name, const char *type,
                     const char *help, const Value &value)
{
    metric(out, name, type, help);
    int number = 0;
    for (const run_file &file : state.files)
        sample(out, state, name,
               ",number=\"" + std::to_string(++number) + "\",file=\"" + label(file.name) +
                   "\",format=\"" + file.format + '"',
               value(file.told));
}

std::string run_state_prometheus(const run_state &state)
{
    static const char *const states[] = {"starting", "running", "waiting", "failed", "stopped"};
    std::string out;
    metric(out, "kestro_info", "gauge", "The run; its value is 1.");
    sample(out, state, "kestro_info",
           std::string(",version=\"") + label(PROGRAM_VERSION) + "\",config=\"" +
               label(state.config) + '"',
           "1");
    metric(out, "kestro_state", "gauge", "1 for the state that the run is in, 0 for the others.");
    for (const char *name : states)
        sample(out, state, "kestro_state", std::string(",state=\"") + name + '"',
               strcmp(name, state.state) == 0 ? "1" : "0");
    single(out, state, "kestro_pid", "gauge", "Process id.", number(getpid()));
    single(out, state, "kestro_started_seconds", "gauge",
           "When the run began, in seconds since 1970.", seconds(state.started_us));
    single(out, state, "kestro_updated_seconds", "gauge", "When this was written.",
           seconds(state.updated_us));
    single(out, state, "kestro_records_total", "counter",
           "Records of the forward log that were processed.", number(state.records));
    single(out, state, "kestro_errors_total", "counter", "Errors that were told.",
           number(state.errors));
    single(out, state, "kestro_last_error_seconds", "gauge",
           "When the last error came, 0 for none.", seconds(state.error_us));
    if (state.errors != 0) {
        metric(out, "kestro_last_error_info", "gauge", "The last error; its value is 1.");
        sample(out, state, "kestro_last_error_info",
               ",error=\"" + label(state.error) + "\",position=\"" +
                   (is_none(state.error_at) ? "" : position_text(state.error_at)) + '"',
               "1");
    }
    single(out, state, "kestro_position_generation", "gauge", "Of the last record processed.",
           number(state.position.generation));
    single(out, state, "kestro_position_sequence", "gauge", "Its log file.",
           number(state.position.sequence));
    single(out, state, "kestro_position_tag", "gauge", "Its number in that file.",
           number(state.position.tag));
    per_file(out, state, "kestro_capture_records_total", "counter", "Records written to the file.",
             [](const cap_told &told) { return number(told.records); });
    per_file(out, state, "kestro_capture_bytes_total", "counter", "Bytes of these records.",
             [](const cap_told &told) { return number(told.bytes); });
    per_file(out, state, "kestro_capture_failures_total", "counter",
             "Records that were not written.",
             [](const cap_told &told) { return number(told.failures); });
    per_file(out, state, "kestro_capture_last_record_seconds", "gauge",
             "When its last record was written, 0 for none.",
             [](const cap_told &told) { return seconds(told.last_us); });
    per_file(out, state, "kestro_capture_last_change_seconds", "gauge",
             "What the log says of that record's time, 0 for none.",
             [](const cap_told &told) { return number(told.logtime); });
    return out;
}
