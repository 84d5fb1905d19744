// fwlog repair: says what is damaged, what is lost by cutting the log back and where it
// is kept, and has it done.
#include "fwutil/fwu_repair.h"
#include "fwutil/fwu_start.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/survey.h"
#include "util/json_text.h"

#include <cinttypes>
#include <cstdio>

struct repair_options {
    const char *cfg = nullptr;
    bool dry_run = false;
    bool accept_loss = false;
    bool json = false;
};
static repair_options options;

static constexpr cli_option rows[] = {
    {"-cfg", CLI_FILE, &options.cfg},
    {"--dry-run", CLI_FLAG, &options.dry_run},
    {"--accept-loss", CLI_FLAG, &options.accept_loss},
    {"--json", CLI_FLAG, &options.json},
};

// "behind position 1-1.6 (source position 0/20)"
static std::string place_text(const fwu_ack &place)
{
    if (place.position.tag == 0)
        return "before its first transaction";
    return "behind position " + fwu_position_text(place.position) + " (source position " +
           fwu_lsn_text(place.commit.lsn) + ")";
}

static void print_lost(const fwu_lost &lost, bool done)
{
    printf("%s lost: %" PRIu64 " transactions, %" PRIu64 " records, as far as they are whole",
           done ? "is" : "would be", lost.transactions, lost.records);
    if (lost.transactions > 0)
        printf("; positions %s to %s, source positions %s to %s",
               fwu_position_text(lost.first).c_str(), fwu_position_text(lost.last).c_str(),
               fwu_lsn_text(lost.first_lsn).c_str(), fwu_lsn_text(lost.last_lsn).c_str());
    puts("");
}

// done: it has been; else it would be.
static void print_text(const fwu_repair &repair, bool done)
{
    const char *directory = repair.directory.c_str();
    if (repair.reason == nullptr) {
        printf("%s: sound: %zu files, %" PRIu64 " transactions, ends %s; nothing to repair\n",
               directory, repair.files, repair.transactions, place_text(repair.end).c_str());
        if (repair.unfinished > 0)
            printf("%" PRId64 " bytes behind offset %" PRId64
                   " of the last file are not a whole transaction: the next writer cuts them off\n",
                   repair.unfinished, repair.unfinished_at);
        return;
    }
    printf("%s: damaged at offset %" PRId64 ": %s\n", repair.damaged.c_str(), repair.damage_at,
           repair.reason);
    printf("%s: %s %s: %zu files, %" PRIu64 " transactions\n", directory,
           done ? "now ends" : "would end", place_text(repair.end).c_str(), repair.files,
           repair.transactions);
    print_lost(repair.lost, done);
    if (repair.below)
        printf("acknowledged had been up to position %s (source position %s)\n",
               fwu_position_text(repair.acked.position).c_str(),
               fwu_lsn_text(repair.acked.commit.lsn).c_str());
    for (const fwu_kept &kept : repair.kept)
        printf("%s kept: %s, %" PRId64 " bytes of %s from offset %" PRId64 " on\n",
               done ? "is" : "would be", kept.name.c_str(), kept.bytes, kept.file.name.c_str(),
               kept.offset);
}

static std::string json_position(const fwu_ack &place)
{
    return place.position.tag == 0 ? "null" : json_text(fwu_position_text(place.position));
}

static void print_json(const fwu_repair &repair, bool done)
{
    const fwu_lost &lost = repair.lost;
    printf("{\"directory\":%s,\"sound\":%s,\"repaired\":%s,\"files\":%zu,\"transactions\":%" PRIu64
           ",\"end\":%s,\"end_source\":%s,\"unfinished\":%" PRId64,
           json_text(repair.directory).c_str(), repair.reason == nullptr ? "true" : "false",
           done && repair.reason != nullptr ? "true" : "false", repair.files, repair.transactions,
           json_position(repair.end).c_str(),
           json_text(fwu_lsn_text(repair.end.commit.lsn)).c_str(),
           repair.reason == nullptr ? repair.unfinished : 0);
    if (repair.have_ack)
        printf(",\"acknowledged\":%s,\"acknowledged_source\":%s",
               json_position(repair.acked).c_str(),
               json_text(fwu_lsn_text(repair.acked.commit.lsn)).c_str());
    if (repair.reason != nullptr) {
        printf(",\"file\":%s,\"offset\":%" PRId64 ",\"damage\":%s,\"below_acknowledged\":%s,"
               "\"lost\":{\"transactions\":%" PRIu64 ",\"records\":%" PRIu64,
               json_text(repair.damaged).c_str(), repair.damage_at,
               json_text(repair.reason).c_str(), repair.below ? "true" : "false", lost.transactions,
               lost.records);
        if (lost.transactions > 0)
            printf(",\"first\":%s,\"last\":%s,\"first_source\":%s,\"last_source\":%s",
                   json_text(fwu_position_text(lost.first)).c_str(),
                   json_text(fwu_position_text(lost.last)).c_str(),
                   json_text(fwu_lsn_text(lost.first_lsn)).c_str(),
                   json_text(fwu_lsn_text(lost.last_lsn)).c_str());
        printf("},\"kept\":[");
        const char *separator = "";
        for (const fwu_kept &kept : repair.kept) {
            printf("%s{\"name\":%s,\"file\":%s,\"offset\":%" PRId64 ",\"bytes\":%" PRId64 "}",
                   separator, json_text(kept.name).c_str(), json_text(kept.file.name).c_str(),
                   kept.offset, kept.bytes);
            separator = ",";
        }
        printf("]");
    }
    puts("}");
}

static outcome refuse(const fwu_repair &repair)
{
    return outcome_failed(
        "%s: not repaired: the log was acknowledged up to position %s (source "
        "position %s), and would end %s; what lies between is not sent again: restore "
        "the log from a copy; only if there is none, repair with --accept-loss",
        repair.directory.c_str(), fwu_position_text(repair.acked.position).c_str(),
        fwu_lsn_text(repair.acked.commit.lsn).c_str(), place_text(repair.end).c_str());
}

static outcome repair_log(fwu_repair &repair, const fwu_config &config)
{
    if (fwu_repair_open(repair, config, options.dry_run) != 0)
        return OUTCOME_FAILED;
    const bool damaged = repair.reason != nullptr;
    const bool refused = damaged && repair.below && !options.accept_loss;
    const bool wanted = damaged && !refused && !options.dry_run;
    const bool done = wanted && fwu_repair_carry_out(repair) == 0;
    options.json ? print_json(repair, done) : print_text(repair, done);
    return refused ? refuse(repair) : fwlog_told(done == wanted);
}

static outcome run()
{
    fwu_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return OUTCOME_FAILED;
    fwu_repair repair;
    outcome done = repair_log(repair, config);
    fwu_repair_close(repair);
    return done;
}

static const char help[] =
    "Usage: fwlog repair [-cfg FILE] [--dry-run] [--accept-loss] [--json]\n"
    "\n"
    "Cuts a damaged log back to its last whole transaction before the first damage, and\n"
    "says what is lost by that.  What is cut off is kept in the log directory: the end of\n"
    "the damaged file as a copy, later files under other names.  A sound log stays as it\n"
    "is.  No writer may run; readers may.\n"
    "\n"
    "  -cfg FILE      configuration file (else the one named by FWUTIL_CFG, else\n"
    "                 fwutil.cfg), which names the log directory\n"
    "  --dry-run      only say what would be done\n"
    "  --accept-loss  also cut off what was acknowledged, which its source does not send\n"
    "                 again; better restore the log from a copy\n"
    "  --json         one JSON object\n"
    "  --help         print this (also -h)\n"
    "\n"
    "Exit status: 0 sound, repaired, or (--dry-run) to be repaired; 1 error, or refused\n"
    "without --accept-loss; 2 wrong command line.\n";

constinit const cli_command fwlog_repair_row = {
    .name = "repair",
    .summary = "cuts a damaged log back to what is whole",
    .run = run,
    .options = rows,
    .help = help,
};
