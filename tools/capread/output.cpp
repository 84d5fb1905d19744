// Changes as lines on standard output, written out when there are many or nothing is left to read.
#include "capture/dsetpat.h"
#include "tools/capread/capread.h"
#include "util/stop_signal.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <poll.h>
#include <unistd.h>
#include <utility>

constexpr size_t WRITE_AFTER = 65536;
constexpr int PATIENCE_MS = 1000; // behind a signal, with a reader that takes nothing

static outcome write_whole(std::string_view text)
{
    for (size_t at = 0; at < text.size();) {
        pollfd room = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
        const int ready = poll(&room, 1, PATIENCE_MS);
        if (ready == 0 && stop_signal_get() != 0)
            return OUTCOME_STOPPED;
        if (ready < 0 && errno != EINTR)
            return cli_output_failed();
        if (ready <= 0)
            continue;
        // A pipe that has room takes so much without waiting.
        const size_t length = std::min<size_t>(text.size() - at, PIPE_BUF);
        const ssize_t put = write(STDOUT_FILENO, text.data() + at, length);
        if (put >= 0)
            at += static_cast<size_t>(put);
        else if (errno != EINTR && errno != EAGAIN)
            return cli_output_failed();
    }
    return {};
}

outcome capread_flush(capread_output &output)
{
    outcome done = write_whole(output.out);
    output.out.clear(); // what could not be written is not tried again
    return done;
}

outcome capread_write(capread_output &output)
{
    if (output.out.size() < WRITE_AFTER)
        return {};
    return capread_flush(output);
}

// Without a database the pattern's part of the dataset decides.
bool capread_wants(const capread_output &output, const rec_header_names &names)
{
    const bool whole = names.database.has_value();
    const std::string subject = whole ? *names.database + ":" + names.dataset : names.dataset;
    return output.patterns.empty() ||
           std::any_of(output.patterns.begin(), output.patterns.end(),
                       [&subject, whole](const std::string &pattern) {
                           const size_t from = whole ? 0 : pattern.rfind(':') + 1;
                           return patmatches(pattern.c_str() + from, subject.c_str()) != 0;
                       });
}

// One header line stands for all that follows: another layout is refused, and so is another
// dataset.
static outcome make_csv(capread_run &run)
{
    capread_output &output = run.output;
    const change_dataset &dataset = *run.record.made.dataset;
    if (!output.csv) {
        output.csv.emplace();
        output.csv_name = rec_record_name(run.record);
        if (outcome done = change_csv_make(*output.csv, dataset, output.csv_options); !done)
            return done;
        output.out += output.csv->header;
        return {};
    }
    if (output.csv->dataset == &dataset)
        return {};
    const std::string &name = rec_record_name(run.record);
    std::string told;
    if (name == output.csv_name)
        told = name + " has another layout from here on, and CSV has one; print JSON";
    else
        told = "it is of " + name + ", and the CSV is of " + output.csv_name +
               "; choose one with --dset";
    return capread_at(run, outcome_bad(std::move(told)));
}

static void tell_inexact(capread_run &run)
{
    rec_dataset &dataset = *run.record.dataset;
    if (dataset.told)
        return;
    dataset.told = true;
    const std::string told = rec_dataset_inexact(dataset, run.record.layouts.form);
    if (!told.empty())
        tell("%s: %s: a text capture is not exact: %s", run.file, dataset.name.c_str(),
             told.c_str());
}

outcome capread_put(capread_run &run)
{
    capread_output &output = run.output;
    const rec_record &record = run.record;
    const fwu_layout &layout = record.made.dataset->layout;
    if (!capread_wants(output, {layout.dbname, layout.dsetname}))
        return {};
    tell_inexact(run);
    if (!output.csv_wanted) {
        change_json_put(*output.json, output.out, record.made, record.transaction);
        return capread_write(output);
    }
    if (outcome done = make_csv(run); !done)
        return done;
    change_csv_put(*output.csv, output.out, record.made, record.transaction);
    return capread_write(output);
}

outcome capread_pause()
{
    constexpr int look_after_ms = 100;
    return stop_signal_wait(-1, look_after_ms) == STOP_ASKED ? outcome(OUTCOME_STOPPED) : outcome();
}

outcome capread_at(const capread_run &run, outcome done)
{
    if (done.kind() != OUTCOME_BAD)
        return done;
    return std::move(done).at(std::string(run.file) + ": record " + std::to_string(run.number) +
                              ": ");
}
