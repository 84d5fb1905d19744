// fwlog info: files, positions, times and counts of a log.
#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_config.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_readers.h"
#include "fwutil/fwu_start.h"
#include "tools/fwlog/dump_value.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/info_dset.h"
#include "tools/fwlog/selection.h"
#include "tools/fwlog/survey.h"
#include "util/json_text.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <vector>

struct info_options {
    const char *cfg = nullptr;
    bool json = false;
};
static info_options options;

static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    {"--json", CLI_FLAG, &options.json},
    {"--dset", FWLOG_PATTERN, info_take_dset},
};

struct log_totals {
    uint64_t files = 0;
    int64_t bytes = 0;
    uint64_t transactions = 0;
    survey_datasets datasets;
    uint64_t truncates = 0; // marks
    uint64_t gaps = 0;
    uint64_t values = 0; // whole values beside their records
    uint64_t value_bytes = 0;
    fwu_identity identity; // of the newest file that has one
    bool have_ack = false;
    fwu_ack ack;
};

// What keeps old files: the configuration's log-keep, and the reader that keeps most of those that
// are registered.
struct log_kept {
    std::string keep;
    size_t readers = 0;
    fwu_reader most;  // path empty: there is none
    size_t files = 0; // that it keeps
};

static bool find_kept(log_kept &kept, const fwu_config &config)
{
    kept.keep = config.keep.text;
    std::vector<fwu_log_file> files;
    std::vector<fwu_reader> readers;
    char *real = realpath(config.log_directory.c_str(), nullptr);
    const std::string directory = real != nullptr ? real : config.log_directory;
    free(real);
    if (fwu_log_list(directory, files) != 0 ||
        fwu_readers_needs(directory, files, readers, false) == FWU_FAILED)
        return false;
    kept.readers = readers.size();
    for (fwu_reader &reader : readers) {
        const size_t count = files.size() - fwu_need_free(reader.need, files);
        if (!kept.most.path.empty() && count <= kept.files)
            continue;
        kept.files = count;
        kept.most = std::move(reader);
    }
    return true;
}

static void print_kept(const log_kept &kept)
{
    if (!kept.keep.empty())
        printf("log-keep          %s\n", kept.keep.c_str());
    if (kept.readers > 0)
        printf("readers           %zu; %zu files stay for %s (%s)\n", kept.readers, kept.files,
               kept.most.path.c_str(), fwu_need_text(kept.most.need).c_str());
}

static void print_json_kept(const log_kept &kept)
{
    const bool any = kept.readers > 0;
    printf(",\"retention\":{\"keep\":%s,\"readers\":%zu,\"held_by\":%s,\"held_at\":%s,"
           "\"held_files\":%zu}}\n",
           kept.keep.empty() ? "null" : json_text(kept.keep).c_str(), kept.readers,
           any ? json_text(kept.most.path).c_str() : "null",
           any ? json_text(fwu_need_text(kept.most.need)).c_str() : "null", kept.files);
}

static std::string time_text(int64_t us)
{
    std::string text;
    return dump_time(text, fwu_second_of(us), fwu_micros_of(us)) ? text + " UTC"
                                                                 : std::to_string(us) + " us";
}

static void add(log_totals &totals, const survey_file &facts)
{
    totals.files++;
    totals.bytes += facts.size;
    totals.transactions += facts.transactions;
    totals.truncates += facts.truncates;
    totals.gaps += facts.gaps;
    totals.values += facts.values;
    totals.value_bytes += facts.value_bytes;
    if (facts.has_header && fwu_identity_known(facts.header.identity))
        totals.identity = facts.header.identity;
    for (const auto &[name, counts] : facts.datasets) {
        survey_counts &sum = totals.datasets[name];
        sum.inserts += counts.inserts;
        sum.updates += counts.updates;
        sum.deletes += counts.deletes;
    }
}

static void print_file(const survey_file &facts)
{
    printf("%s\n", facts.file.name.c_str());
    if (facts.has_header)
        printf("    created       %s, %s-endian images%s\n",
               time_text(facts.header.created_us).c_str(),
               facts.header.big_endian ? "big" : "little",
               facts.header.encoding == FWU_UTF8 ? ", UTF-8 texts" : "");
    printf("    size          %" PRId64 " bytes\n", facts.size);
    printf("    transactions  %" PRIu64 "\n", facts.transactions);
    if (facts.transactions > 0)
        printf("    commits       %s to %s\n"
               "    last          position %s, source %s\n",
               time_text(facts.first_us).c_str(), time_text(facts.last_us).c_str(),
               survey_position(facts).c_str(), fwu_lsn_text(facts.last_lsn).c_str());
    if (facts.tail > 0)
        printf("    tail          %" PRId64 " bytes that are not a whole transaction (yet)\n",
               facts.tail);
    if (!facts.damage.empty())
        printf("    damaged       at offset %" PRId64 ": %s\n", facts.damage_at,
               facts.damage.c_str());
    if (facts.missing_from != 0)
        printf("    missing       log files %" PRId32 " to %" PRId32 " before it\n",
               facts.missing_from, facts.missing_to);
}

// Whose log it is, and how far it was acknowledged.
static void print_log(const log_totals &totals)
{
    printf("identity          %s\n", fwu_identity_text(totals.identity).c_str());
    if (!totals.have_ack)
        puts("acknowledged      not known (no file \"acknowledged\")");
    else if (totals.ack.position.tag == 0)
        puts("acknowledged      nothing yet");
    else
        printf("acknowledged      position %s, source %s, committed %s\n",
               fwu_position_text(totals.ack.position).c_str(),
               fwu_lsn_text(totals.ack.commit.lsn).c_str(),
               time_text(totals.ack.commit.time_us).c_str());
    if (totals.ack.lost)
        printf("lost              a repair cut the log back; it had been acknowledged up to source "
               "%s\n",
               fwu_lsn_text(totals.ack.commit.lsn).c_str());
}

static void print_totals(const log_totals &totals)
{
    printf("%" PRIu64 " files, %" PRId64 " bytes, %" PRIu64 " transactions\n", totals.files,
           totals.bytes, totals.transactions);
    print_log(totals);
    if (totals.truncates > 0 || totals.gaps > 0)
        printf("marks             %" PRIu64 " truncate, %" PRIu64 " gap\n", totals.truncates,
               totals.gaps);
    if (totals.values > 0)
        printf("whole values      %" PRIu64 ", %" PRIu64 " bytes\n", totals.values,
               totals.value_bytes);
    if (!totals.datasets.empty())
        printf("%-33s %10s %10s %10s\n", "dataset", "inserts", "updates", "deletes");
    for (const auto &[name, counts] : totals.datasets)
        puts(info_dataset_line(name.first, name.second, counts).c_str());
}

static void print_json_file(const survey_file &facts, bool first)
{
    printf("%s{\"file\":%s,\"generation\":%" PRId32 ",\"sequence\":%" PRId32 ",\"size\":%" PRId64
           ",\"transactions\":%" PRIu64 ",\"entries\":%" PRIu64 ",\"last_tag\":%" PRId32
           ",\"first_commit_us\":%" PRId64 ",\"last_commit_us\":%" PRId64
           ",\"last_source\":%s,\"tail\":%" PRId64 ",\"damage\":%s,\"text_encoding\":%s}",
           first ? "" : ",", json_text(facts.file.name).c_str(), facts.file.generation,
           facts.file.sequence, facts.size, facts.transactions, facts.entries, facts.last_tag,
           facts.first_us, facts.last_us, json_text(fwu_lsn_text(facts.last_lsn)).c_str(),
           facts.tail, facts.damage.empty() ? "null" : json_text(facts.damage).c_str(),
           facts.has_header ? json_text(fwu_encoding_name(facts.header.encoding)).c_str() : "null");
}

static void print_json_totals(const log_totals &totals)
{
    printf("],\"bytes\":%" PRId64 ",\"transactions\":%" PRIu64 ",\"identity\":%s,\"acknowledged\":",
           totals.bytes, totals.transactions,
           json_text(fwu_identity_text(totals.identity)).c_str());
    const fwu_ack &ack = totals.ack;
    const std::string position = fwu_position_text(ack.position);
    if (totals.have_ack)
        printf("{\"position\":%s,\"source\":%s,\"commit_us\":%" PRId64 ",\"lost\":%s}",
               ack.position.tag == 0 ? "null" : json_text(position).c_str(),
               json_text(fwu_lsn_text(ack.commit.lsn)).c_str(), ack.commit.time_us,
               ack.lost ? "true" : "false");
    else
        printf("null");
    printf(",\"datasets\":[");
    const char *separator = "";
    for (const auto &[name, counts] : totals.datasets) {
        printf("%s%s", separator, info_dataset_json(name.first, name.second, counts).c_str());
        separator = ",";
    }
    printf("],\"marks\":{\"truncate\":%" PRIu64 ",\"gap\":%" PRIu64
           "},\"whole_values\":{\"count\":%" PRIu64 ",\"bytes\":%" PRIu64 "}",
           totals.truncates, totals.gaps, totals.values, totals.value_bytes);
}

// What the patterns take, and nothing else.
static outcome tell_dsets(const std::string &directory)
{
    log_totals totals;
    bool sound = true;
    outcome surveyed = fwlog_survey(directory, [&](const survey_file &facts) {
        sound = sound && facts.damage.empty();
        add(totals, facts);
    });
    if (!surveyed)
        return surveyed;
    if (!sound)
        fwu_error("%s: the log is damaged, and what stands behind the damage is not counted; "
                  "fwlog verify tells where",
                  directory.c_str());
    const bool all = info_print_dsets(totals.datasets, options.json);
    return fwlog_told(sound && all);
}

static outcome run()
{
    fwu_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    if (info_has_dsets())
        return tell_dsets(config.log_directory);
    log_totals totals;
    bool sound = true;
    if (options.json)
        printf("{\"directory\":%s,\"files\":[", json_text(config.log_directory).c_str());
    outcome surveyed = fwlog_survey(config.log_directory, [&](const survey_file &facts) {
        sound = sound && facts.damage.empty();
        options.json ? print_json_file(facts, totals.files == 0) : print_file(facts);
        add(totals, facts);
    });
    const fwu_found acked = fwu_ack_read(config.log_directory, totals.ack);
    totals.have_ack = acked == FWU_FOUND;
    sound = sound && acked != FWU_FAILED;
    log_kept kept;
    sound = find_kept(kept, config) && sound;
    options.json ? print_json_totals(totals) : print_totals(totals);
    options.json ? print_json_kept(kept) : print_kept(kept);
    return surveyed ? fwlog_told(sound) : std::move(surveyed);
}

static const char help[] =
    "Usage: fwlog info [-cfg FILE] [--json] [--dset PATTERN ...]\n"
    "\n"
    "Tells of each file of the forward log its size, its transactions with the times of\n"
    "the first and the last commit, and the position of the last one in the log and in\n"
    "the source; then the log's identity, how far it was acknowledged, and the changes of\n"
    "each dataset.\n"
    "\n"
    "  -cfg FILE    configuration file (else the one named by FWUTIL_CFG, else\n"
    "               fwutil.cfg), which names the log directory\n"
    "  --json       one JSON object\n"
    "  --dset PATTERN\n"
    "               tells instead which datasets and how many records Kestro's -dset\n"
    "               PATTERN takes, and for one that takes nothing what was probably\n"
    "               meant; may be given several times\n"
    "  --help       print this (also -h)\n"
    "\n"
    "Exit status: 0 done; 1 damage, a pattern that takes nothing, or the log could not be\n"
    "read; 2 wrong command line.\n";

constinit const cli_command fwlog_info_row = {
    .name = "info",
    .summary = "tells files, positions, times and datasets of a forward log",
    .run = run,
    .options = rows,
    .help = help,
};
