// fwlog repair: says what is damaged, what is lost by cutting the log back and where it
// is kept, and has it done.
#include "feed/lsn.h"
#include "fwutil/fwu_error.h"
#include "fwutil/fwu_repair.h"
#include "tools/fwlog/fwlog.h"
#include "tools/fwlog/survey.h"
#include "util/json_text.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

struct repair_options {
    fwlog_log_options log;
    bool dry_run = false;
    bool accept_loss = false;
};

static int scan_options(repair_options &options, int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        const char *const word = argv[i];
        int usage = FWLOG_EXIT_OK;
        if (strcmp(word, "--dry-run") == 0)
            options.dry_run = true;
        else if (strcmp(word, "--accept-loss") == 0)
            options.accept_loss = true;
        else if (strcmp(word, "--json") == 0)
            options.log.json = true;
        else if (strcmp(word, "-cfg") == 0 && i + 1 < argc)
            options.log.cfg = argv[++i];
        else if (strcmp(word, "-cfg") == 0)
            usage = fwlog_usage_error("option lacks its file name", word);
        else
            usage = fwlog_usage_error(word[0] == '-' ? "unknown option" : "unexpected word", word);
        if (usage != FWLOG_EXIT_OK)
            return usage;
    }
    return FWLOG_EXIT_OK;
}

// "behind position 1-1.6 (source position 0/20)"
static std::string place_text(const fwu_ack &place)
{
    if (place.position.tag == 0)
        return "before its first transaction";
    return "behind position " + fwu_position_text(place.position) + " (source position " +
           feed_lsn_text(place.commit.lsn) + ")";
}

static void print_lost(const fwu_lost &lost, bool done)
{
    printf("%s lost: %" PRIu64 " transactions, %" PRIu64 " records, as far as they are whole",
           done ? "is" : "would be", lost.transactions, lost.records);
    if (lost.transactions > 0)
        printf("; positions %s to %s, source positions %s to %s",
               fwu_position_text(lost.first).c_str(), fwu_position_text(lost.last).c_str(),
               feed_lsn_text(lost.first_lsn).c_str(), feed_lsn_text(lost.last_lsn).c_str());
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
               feed_lsn_text(repair.acked.commit.lsn).c_str());
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
           json_text(feed_lsn_text(repair.end.commit.lsn)).c_str(),
           repair.reason == nullptr ? repair.unfinished : 0);
    if (repair.have_ack)
        printf(",\"acknowledged\":%s,\"acknowledged_source\":%s",
               json_position(repair.acked).c_str(),
               json_text(feed_lsn_text(repair.acked.commit.lsn)).c_str());
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
                   json_text(feed_lsn_text(lost.first_lsn)).c_str(),
                   json_text(feed_lsn_text(lost.last_lsn)).c_str());
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

static int refuse(const fwu_repair &repair)
{
    return fwu_error("%s: not repaired: the log was acknowledged up to position %s (source "
                     "position %s), and would end %s; what lies between is not sent again: restore "
                     "the log from a copy; only if there is none, repair with --accept-loss",
                     repair.directory.c_str(), fwu_position_text(repair.acked.position).c_str(),
                     feed_lsn_text(repair.acked.commit.lsn).c_str(),
                     place_text(repair.end).c_str());
}

static int run(fwu_repair &repair, const fwu_config &config, const repair_options &options)
{
    if (fwu_repair_open(repair, config, options.dry_run) != 0)
        return FWLOG_EXIT_FAILED;
    const bool damaged = repair.reason != nullptr;
    const bool refused = damaged && repair.below && !options.accept_loss;
    const bool wanted = damaged && !refused && !options.dry_run;
    const bool done = wanted && fwu_repair_carry_out(repair) == 0;
    options.log.json ? print_json(repair, done) : print_text(repair, done);
    if (refused)
        (void)refuse(repair); // its result says nothing more
    return refused || done != wanted ? FWLOG_EXIT_FAILED : FWLOG_EXIT_OK;
}

int fwlog_repair_main(int argc, char **argv)
{
    repair_options options;
    const int usage = scan_options(options, argc, argv);
    if (usage != FWLOG_EXIT_OK)
        return usage;
    fwu_config config;
    if (fwu_config_read(config, options.log.cfg) != 0)
        return FWLOG_EXIT_FAILED;
    fwu_repair repair;
    const int status = run(repair, config, options);
    fwu_repair_close(repair);
    return fwlog_flush_output(status);
}
