// tmf repair: says what is wrong with a message file, and cuts it back to its whole
// records, with the file as it was kept under another name.
#include "tools/tmf/tmf_tool.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>

struct finding {
    int bit;
    const char *text;
};

static constexpr finding findings[] = {
    {TMF_FOUND_ZEROS, "zeros where its beginning should be, which never came to the disk"},
    {TMF_FOUND_PLACE, "the place of its first or its next record is none"},
    {TMF_FOUND_CUT, "it ends before its records do"},
    {TMF_FOUND_HOLE, "there is a hole in its records, which never came to the disk"},
    {TMF_FOUND_FRAME, "what should be a record is none"},
    {TMF_FOUND_COUNT, "the number of records is wrong"},
    {TMF_FOUND_USERS, "the numbers of readers and writers are not those of their slots"},
};

static std::string records_text(int records)
{
    return std::to_string(records) + (records == 1 ? " record" : " records");
}

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
           records_text(found.counted).c_str(), found.end, found.size);
    printf("    has      %s, from %lld to %lld\n", records_text(found.records).c_str(), found.first,
           found.sound);
    const long long lost = found.end < found.size ? found.end : found.size;
    if (lost > found.sound)
        printf("    behind   %lld bytes that are no whole records, or stand behind a damaged one\n",
               lost - found.sound);
}

static int print_sound(const char *file, const tmf_check_result &found)
{
    if (found.size == 0)
        printf("%s: empty; who opens it next makes a message file of it\n", file);
    else
        printf("%s: sound, %s from %lld to %lld\n", file, records_text(found.records).c_str(),
               found.first, found.end);
    if (found.uncounted != 0)
        printf("    behind   %s that the file does not count: a writer was killed before it\n"
               "             did, or their count did not come to the disk; they stay uncounted\n",
               records_text(found.uncounted).c_str());
    return tmft_flush_output(TMFT_EXIT_OK);
}

static int print_damaged(const char *file, const tmf_check_result &found)
{
    print_findings(file, found);
    printf("    nothing is changed\n");
    return tmft_flush_output(TMFT_EXIT_FAILED);
}

static int print_repaired(const char *file, const tmf_check_result &found, const char *kept)
{
    print_findings(file, found);
    printf("    kept     %s: the file as it was\n", kept);
    if ((found.found & TMF_FOUND_ZEROS) != 0)
        printf("    repaired: it is empty; who opens it next makes a message file of it\n");
    else
        printf("    repaired: it has %s\n", records_text(found.records).c_str());
    return tmft_flush_output(TMFT_EXIT_OK);
}

static int repair(const char *file, const char *kept)
{
    tmf_check_result found;
    if (tmf_repair(file, 0, kept, &found) != 0) {
        tmft_complain_handle(found.aside == TMF_ASIDE_FAILED ? kept : file, nullptr);
        if (found.aside == TMF_ASIDE_FAILED)
            tmft_complain(file, "nothing is changed, since no copy of it can be kept; name another "
                                "place with --keep");
        else if (found.changed != 0)
            tmft_complain(file, "repaired, but perhaps not on the disk; repair it again");
        if (found.aside == TMF_ASIDE_MADE)
            tmft_complain(kept, "the file as it was");
        return TMFT_EXIT_FAILED;
    }
    return found.changed == 0 ? print_sound(file, found) : print_repaired(file, found, kept);
}

int tmft_repair_main(int argc, char **argv)
{
    bool dry = false;
    const char *file = nullptr;
    std::string kept;
    for (int i = 0; i < argc; i++) {
        if (strcmp(argv[i], "--dry-run") == 0) {
            dry = true;
        } else if (strcmp(argv[i], "--keep") == 0) {
            if (i + 1 == argc || argv[i + 1][0] == '\0')
                return tmft_usage_error("which name?", argv[i]);
            kept = argv[++i];
        } else if (argv[i][0] == '-') {
            return tmft_usage_error("unknown option", argv[i]);
        } else if (file != nullptr) {
            return tmft_usage_error("one file only", argv[i]);
        } else {
            file = argv[i];
        }
    }
    if (file == nullptr)
        return tmft_usage_error("which file?", "repair");
    tmf_check_result found;
    if (tmf_check(file, &found) != 0) {
        tmft_complain_handle(file, nullptr);
        return TMFT_EXIT_FAILED;
    }
    if (found.found == 0)
        return print_sound(file, found);
    if (dry)
        return print_damaged(file, found);
    if (kept.empty())
        kept = std::string(file) + ".damaged";
    struct stat about;
    if (lstat(kept.c_str(), &about) == 0) {
        tmft_complain(kept.c_str(), "there is such a file already, perhaps an earlier copy; name "
                                    "another place with --keep");
        return TMFT_EXIT_FAILED;
    }
    return repair(file, kept.c_str());
}
