// fwlog verify: reads every entry of a log and says what is damaged.
//
// What was acknowledged is read before the files are listed: beside a writer the log may have
// more than that by the time it is compared, never less.
#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_reader_config.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/survey.h"
#include "util/json_text.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

struct verify_options {
    const char *cfg = nullptr;
    bool json = false;
};
static verify_options options;

static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    {"--json", CLI_FLAG, &options.json},
};

static void print_text(const survey_file &facts)
{
    const char *path = facts.file.path.c_str();
    if (facts.missing_from != 0)
        printf("%s: log files %" PRId32 " to %" PRId32 " are missing before it\n", path,
               facts.missing_from, facts.missing_to);
    if (!facts.damage.empty())
        printf("%s: damaged at offset %" PRId64
               ": %s; what follows in this file was not looked at\n",
               path, facts.damage_at, facts.damage.c_str());
    else if (facts.tail > 0)
        printf("%s: %" PRIu64 " transactions, %" PRIu64 " entries; %" PRId64
               " bytes behind offset %" PRId64 " are not a whole transaction (yet)\n",
               path, facts.transactions, facts.entries, facts.tail, facts.tail_at);
    else
        printf("%s: %" PRIu64 " transactions, %" PRIu64 " entries\n", path, facts.transactions,
               facts.entries);
}

static void print_json(const survey_file &facts)
{
    printf("{\"file\":%s,\"transactions\":%" PRIu64 ",\"entries\":%" PRIu64 ",\"tail\":%" PRId64,
           json_text(facts.file.path).c_str(), facts.transactions, facts.entries, facts.tail);
    if (facts.missing_from != 0)
        printf(",\"missing_from\":%" PRId32 ",\"missing_to\":%" PRId32, facts.missing_from,
               facts.missing_to);
    if (!facts.damage.empty())
        printf(",\"damage\":%s,\"offset\":%" PRId64, json_text(facts.damage).c_str(),
               facts.damage_at);
    puts("}");
}

// A line for a file that is not there, and of which something was acknowledged.
static void print_missing(const fwu_ack &ack, const std::string &directory)
{
    survey_file facts;
    facts.file.name = fwu_log_file_name(ack.position.generation, ack.position.sequence);
    facts.file.path = directory + "/" + facts.file.name;
    facts.damage = "the log file is missing, and the log was acknowledged up to position " +
                   fwu_position_text(ack.position) + " in it";
    if (options.json)
        print_json(facts);
    else
        printf("%s: %s\n", facts.file.path.c_str(), facts.damage.c_str());
}

// Compares the log, up to its last file and its last commit, with what had been
// acknowledged of it before the files were listed: beside a writer there is more by now.
// That the last file holds as much has been looked at with the file.  False: reported.
static bool check_acknowledged(const std::string &directory, const fwu_ack &ack,
                               const fwu_log_file &last, const fwu_position &end,
                               const fwu_identity &identity)
{
    if (fwu_identity_known(identity) && identity != ack.identity)
        return fwu_ack_foreign(directory, ack, identity) == 0;
    if (std::pair(last.generation, last.sequence) >=
        std::pair(ack.position.generation, ack.position.sequence))
        return true;
    print_missing(ack, directory);
    return fwu_ack_missing(directory, ack, end, nullptr) == 0;
}

static outcome run()
{
    fwu_reader_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    bool sound = true;
    fwu_ack ack;
    const fwu_found acked = fwu_ack_read(config.log_directory, ack);
    fwu_log_file last;
    fwu_position end; // the last commit
    fwu_identity identity;
    outcome surveyed = fwlog_survey(config.log_directory, [&](const survey_file &facts) {
        sound = sound && facts.damage.empty() && facts.missing_from == 0;
        last = facts.file;
        if (facts.last_tag != 0)
            end = {last.generation, last.sequence, facts.last_tag};
        if (facts.has_header && fwu_identity_known(facts.header.identity))
            identity = facts.header.identity;
        options.json ? print_json(facts) : print_text(facts);
    });
    sound = acked != FWU_FAILED && sound;
    if (acked == FWU_FOUND)
        sound = check_acknowledged(config.log_directory, ack, last, end, identity) && sound;
    return surveyed ? fwlog_told(sound) : std::move(surveyed);
}

static const char help[] =
    "Usage: fwlog verify [-cfg FILE] [--json]\n"
    "\n"
    "Reads every entry of the forward log, checks all checksums, tags and file names,\n"
    "and prints a line for each log file: what it holds, or what is damaged and at\n"
    "which offset.  What stands behind a damaged place in a file is not looked at; the\n"
    "next file is.  Also compares records with their layouts, and the log's end with what\n"
    "was acknowledged.\n"
    "\n"
    "  -cfg FILE    configuration file (else the one named by FWUTIL_CFG, else\n"
    "               fwutil.cfg), which names the log directory\n"
    "  --json       one JSON object a line for each file\n"
    "  --help       print this (also -h)\n"
    "\n"
    "Exit status: 0 sound (a transaction being written at the end is); 1 damage, a\n"
    "missing file, or the log could not be read; 2 wrong command line.\n";

constinit const cli_command fwlog_verify_row = {
    .name = "verify",
    .summary = "reads every entry of a forward log and says what is damaged",
    .run = run,
    .options = rows,
    .help = help,
};
