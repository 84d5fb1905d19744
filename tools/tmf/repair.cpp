// tmf repair: says what is wrong with a message file, and cuts it back to its whole
// records, with the file as it was kept under another name.
#include "tools/tmf/tmf_tool.h"

#include <cstdio>
#include <string>
#include <sys/stat.h>

struct repair_options {
    const char *file = nullptr;
    const char *kept = nullptr; // name of the copy; null: FILE.damaged
    bool dry_run = false;
};
static repair_options options;

static constexpr cli_option rows[] = {
    {"--dry-run", CLI_FLAG, &options.dry_run},
    {"--keep", {.word = "NAME", .lacking = "which name?", .may_be_empty = false}, &options.kept},
    {"FILE", {.word = "FILE", .lacking = "which file?", .again = "one file only"}, &options.file},
};

struct finding {
    int bit;
    const char *text;
};

static constexpr finding findings[] = {
    {TMF_FOUND_ZEROS, "zeros where its beginning should be, which never came to the disk"},
    {TMF_FOUND_FIXED, "a number that every message file has alike is another one"},
    {TMF_FOUND_PLACE, "the place of its first or its next record is none"},
    {TMF_FOUND_CUT, "it ends before its records do"},
    {TMF_FOUND_HOLE, "there is a hole in its records, which never came to the disk"},
    {TMF_FOUND_FRAME, "what should be a record is none"},
    {TMF_FOUND_COUNT, "the number of records is wrong"},
    {TMF_FOUND_USERS, "the numbers of readers and writers are not those of their slots"},
};

static void print_findings(const char *file, const tmf_check_result &found)
{
    printf("%s\n", file);
    for (const finding &row : findings) {
        if ((found.found & row.bit) != 0)
            printf("    damaged: %s\n", row.text);
    }
    if ((found.found & TMF_FOUND_ZEROS) != 0)
        return;
    printf("    says     %s, up to %lld; the file has %lld bytes\n",
           tmft_records_text(found.counted).c_str(), found.end, found.size);
    printf("    has      %s, from %lld to %lld\n", tmft_records_text(found.records).c_str(),
           found.first, found.sound);
    const long long lost = found.end < found.size ? found.end : found.size;
    if (lost > found.sound)
        printf("    behind   %lld bytes that are no whole records, or stand behind a damaged one\n",
               lost - found.sound);
}

static outcome print_sound(const char *file, const tmf_check_result &found)
{
    if (found.size == 0)
        printf("%s: empty; who opens it next makes a message file of it\n", file);
    else
        printf("%s: sound, %s from %lld to %lld\n", file, tmft_records_text(found.records).c_str(),
               found.first, found.end);
    if (found.uncounted != 0)
        printf("    behind   %s that the file does not count: a writer was killed before it\n"
               "             did, or their count did not come to the disk; they stay uncounted\n",
               tmft_records_text(found.uncounted).c_str());
    return {};
}

static outcome print_damaged(const char *file, const tmf_check_result &found)
{
    print_findings(file, found);
    printf("    nothing is changed\n");
    return OUTCOME_FAILED;
}

static outcome print_repaired(const char *file, const tmf_check_result &found, const char *kept)
{
    print_findings(file, found);
    printf("    kept     %s: the file as it was\n", kept);
    if ((found.found & TMF_FOUND_ZEROS) != 0)
        printf("    repaired: it is empty; who opens it next makes a message file of it\n");
    else
        printf("    repaired: it has %s\n", tmft_records_text(found.records).c_str());
    return {};
}

// What could not be done, and what has become of the file and its copy.
static outcome say_failed(const char *file, const char *kept, const tmf_check_result &found)
{
    outcome failed = tmft_complain_handle(found.aside == TMF_ASIDE_FAILED ? kept : file, nullptr);
    if (found.aside == TMF_ASIDE_FAILED)
        failed = tmft_complain(file, "nothing is changed, since no copy of it can be kept; name "
                                     "another place with --keep");
    else if (found.changed != 0)
        failed = tmft_complain(file, "repaired, but perhaps not on the disk; repair it again");
    if (found.aside == TMF_ASIDE_MADE)
        failed = tmft_complain(kept, "the file as it was");
    return failed;
}

static outcome repair(const char *file, const char *kept)
{
    tmf_check_result found;
    if (tmf_repair(file, 0, kept, &found) != 0)
        return say_failed(file, kept, found);
    return found.changed == 0 ? print_sound(file, found) : print_repaired(file, found, kept);
}

static outcome run()
{
    const char *const file = options.file;
    tmf_check_result found;
    if (tmf_check(file, &found) != 0)
        return tmft_complain_handle(file, nullptr);
    if (found.found == 0)
        return print_sound(file, found);
    if (options.dry_run)
        return print_damaged(file, found);
    const std::string kept =
        options.kept != nullptr ? options.kept : std::string(file) + ".damaged";
    struct stat about;
    if (lstat(kept.c_str(), &about) == 0)
        return tmft_complain(kept.c_str(), "there is such a file already, perhaps an earlier "
                                           "copy; name another place with --keep");
    return repair(file, kept.c_str());
}

static const char help[] =
    "Usage: tmf repair [--dry-run] [--keep NAME] FILE\n"
    "\n"
    "Compares a message file's records with the numbers at its beginning, as after a\n"
    "power cut, and says what is wrong.  A damaged file is cut back to the records in\n"
    "front of the first damage.  Before that it is copied to FILE.damaged; a copy that\n"
    "cannot be kept leaves the file as it is.  Readers and writers may have the file\n"
    "open; they wait meanwhile.\n"
    "\n"
    "A record's data has no checksum: where the lengths before and behind it are right\n"
    "it counts as whole.\n"
    "\n"
    "  --dry-run    only says what is wrong; changes nothing\n"
    "  --keep NAME  copies the file to NAME, which must not be there\n"
    "  --help       print this (also -h)\n"
    "\n"
    "Exit status: 0 the file is sound, or is now; 1 error, or with --dry-run a damaged\n"
    "file; 2 wrong command line.\n";

constinit const cli_command tmf_repair_row = {
    .name = "repair",
    .summary = "cuts a damaged file back to its whole records",
    .run = run,
    .options = rows,
    .help = help,
};
