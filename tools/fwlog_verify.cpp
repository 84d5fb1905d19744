// fwlog verify: reads every entry of a log and says what is damaged.
#include "fwutil/fwu_ack.h"
#include "fwutil/fwu_config.h"
#include "tools/fwlog.h"
#include "tools/fwlog_survey.h"

#include <cinttypes>
#include <cstdio>
#include <utility>

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
           survey_quoted(facts.file.path).c_str(), facts.transactions, facts.entries, facts.tail);
    if (facts.missing_from != 0)
        printf(",\"missing_from\":%" PRId32 ",\"missing_to\":%" PRId32, facts.missing_from,
               facts.missing_to);
    if (!facts.damage.empty())
        printf(",\"damage\":%s,\"offset\":%" PRId64, survey_quoted(facts.damage).c_str(),
               facts.damage_at);
    puts("}");
}

int fwlog_verify_main(int argc, char **argv)
{
    fwlog_log_options options;
    const int usage = fwlog_scan_log_options(options, argc, argv);
    if (usage != FWLOG_EXIT_OK)
        return usage;
    fwu_config config;
    if (fwu_config_read(config, options.cfg) != 0)
        return FWLOG_EXIT_FAILED;
    bool sound = true;
    fwu_position end; // of the log: its last file
    const int result = fwlog_survey(config.log_directory, [&](const survey_file &facts) {
        sound = sound && facts.damage.empty() && facts.missing_from == 0;
        end = {facts.file.generation, facts.file.sequence, static_cast<int32_t>(facts.entries)};
        options.json ? print_json(facts) : print_text(facts);
    });
    // That the file it ends in holds as much has been looked at with the file.
    fwu_ack ack;
    const fwu_found acked = fwu_ack_read(config.log_directory, ack);
    if (acked == FWU_FOUND && std::pair(end.generation, end.sequence) <
                                  std::pair(ack.position.generation, ack.position.sequence))
        sound = fwu_ack_missing(config.log_directory, ack, end, nullptr) == 0;
    sound = sound && acked != FWU_FAILED;
    return fwlog_flush_output(result == 0 && sound ? FWLOG_EXIT_OK : FWLOG_EXIT_FAILED);
}
