// A program over the shared library: prints the records that it is given and, when
// it defines the functions that the library looks for, how these are called.
// Arguments: configuration, status file, answers of Fwu_hook_sync_due at start,
// record, rest and end, the text to keep ("-": the sync fails).  In the environment:
// HOOK_PROGRAM_BOOT, the file that tells the boot; HOOK_PROGRAM_STOP, the number of a
// record behind which the program ends as if it was killed; HOOK_PROGRAM_FAIL, the number
// of a sync that fails; HOOK_PROGRAM_START, a start position; HOOK_PROGRAM_REMOVE, the
// number of a record at which the status file is removed; HOOK_PROGRAM_WAIT, answers of
// Fwu_hook_wait, a digit each, "-" for a failure, in a run that does not end at the end of
// the log: it raises SIGTERM itself at the last one, and SIGHUP at each before.
// HOOK_PROGRAM_LOOK, anything: looks are printed, too.
#include "fwutil/fwutil.h"

#if WITH_BOOT
#include "fwutil/fwu_boot.h"
#endif

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

static const char *status_file = nullptr;

static bool is_number(const char *name, int number)
{
    const char *value = getenv(name);
    return value != nullptr && atoi(value) == number;
}

#if WITH_HOOKS
static char **words = nullptr;
static int syncs = 0;
static int waits = 0;

int Fwu_hook_sync_due(int when)
{
    printf("due %d\n", when);
    return atoi(words[3 + when]);
}

const char *Fwu_hook_sync(void)
{
    printf("sync\n");
    const bool fails = strcmp(words[7], "-") == 0 || is_number("HOOK_PROGRAM_FAIL", ++syncs);
    return fails ? nullptr : words[7];
}

int Fwu_hook_resume(const char *mark)
{
    printf("resume [%s]\n", mark);
    return strcmp(words[7], "no resume") == 0 ? -1 : 0;
}

void Fwu_hook_look(int what, const char *text)
{
    if (getenv("HOOK_PROGRAM_LOOK") != nullptr)
        printf("look %d [%s]\n", what, text == nullptr ? "" : text);
}

int Fwu_hook_keep(const char *mark)
{
    printf("keep [%s]\n", mark);
    return strcmp(words[7], "no keep") == 0 ? -1 : 0;
}

int Fwu_hook_wait(void)
{
    const char *answers = getenv("HOOK_PROGRAM_WAIT");
    if (answers == nullptr || answers[waits] == '\0')
        return 0;
    const char answer = answers[waits++];
    printf("wait\n");
    // Each is held back until the wait, and ends it.
    (void)raise(answers[waits] == '\0' ? SIGTERM : SIGHUP);
    printf("answer %c\n", answer);
    return answer == '-' ? -1 : answer - '0';
}

extern "C" {
static void on_hangup(int)
{
    (void)!write(STDOUT_FILENO, "hangup\n", 7);
}
}
#endif

static int print_record(uint32_t, const char *, const char *, int32_t, int32_t, int32_t recnum,
                        int32_t, const void *, const void *)
{
    printf("record %d\n", static_cast<int>(recnum));
    if (is_number("HOOK_PROGRAM_REMOVE", recnum))
        (void)unlink(status_file); // the test sees
    if (is_number("HOOK_PROGRAM_STOP", recnum)) {
        fflush(stdout);
        _exit(9);
    }
    return 0;
}

int main(int argc, char **argv)
{
    if (argc != 8)
        return 2;
    status_file = argv[2];
#if WITH_HOOKS
    words = argv;
    (void)signal(SIGHUP, on_hangup);
#endif
#if WITH_BOOT
    fwu_boot_path = getenv("HOOK_PROGRAM_BOOT");
#endif
    (void)setvbuf(stdout, nullptr, _IOLBF, 0); // what was printed before a kill is there
    Fwu_synconly(getenv("HOOK_PROGRAM_WAIT") == nullptr ? 1 : 0);
    return Fwu_process(print_record, argv[1], argv[2], getenv("HOOK_PROGRAM_START")) == 0 ? 0 : 1;
}
