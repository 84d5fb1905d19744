// A program over the shared library: prints the records that it is given and, when
// it defines the functions that the library looks for, how these are called.
// Arguments: configuration, status file, answers of Fwu_hook_sync_due at start,
// record, rest and end, the text to keep ("-": the sync fails).  In the environment:
// HOOK_PROGRAM_BOOT, the file that tells the boot; HOOK_PROGRAM_STOP, the number of a
// record behind which the program ends as if it was killed.
#include "fwutil/fwutil.h"

#if WITH_BOOT
#include "fwutil/fwu_boot.h"
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#if WITH_HOOKS
static char **words = nullptr;

int Fwu_hook_sync_due(int when)
{
    printf("due %d\n", when);
    return atoi(words[3 + when]);
}

const char *Fwu_hook_sync(void)
{
    printf("sync\n");
    return strcmp(words[7], "-") == 0 ? nullptr : words[7];
}

int Fwu_hook_resume(const char *mark)
{
    printf("resume [%s]\n", mark);
    return strcmp(words[7], "no resume") == 0 ? -1 : 0;
}

int Fwu_hook_keep(const char *mark)
{
    printf("keep [%s]\n", mark);
    return strcmp(words[7], "no keep") == 0 ? -1 : 0;
}
#endif

static int print_record(uint32_t, const char *, const char *, int32_t, int32_t, int32_t recnum,
                        int32_t, const void *, const void *)
{
    printf("record %d\n", static_cast<int>(recnum));
    const char *stop = getenv("HOOK_PROGRAM_STOP");
    if (stop != nullptr && atoi(stop) == recnum) {
        fflush(stdout);
        _exit(9);
    }
    return 0;
}

int main(int argc, char **argv)
{
    if (argc != 8)
        return 2;
#if WITH_HOOKS
    words = argv;
#endif
#if WITH_BOOT
    fwu_boot_path = getenv("HOOK_PROGRAM_BOOT");
#endif
    (void)setvbuf(stdout, nullptr, _IOLBF, 0); // what was printed before a kill is there
    Fwu_synconly(1);
    return Fwu_process(print_record, argv[1], argv[2], nullptr) == 0 ? 0 : 1;
}
