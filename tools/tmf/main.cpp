// tmf: shows, reads, writes and mends message files.  This file has the
// subcommands and the help texts.
#include "tools/tmf/tmf_tool.h"

#include "util/outcome.h"
#include "util/standard_files.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

static const char help_text[] = "Usage: tmf info [--json] FILE...\n"
                                "       tmf read [options] FILE\n"
                                "       tmf write [options] FILE\n"
                                "       tmf repair [--dry-run] [--keep NAME] FILE\n"
                                "       tmf --help | --version\n"
                                "\n"
                                "Shows, reads, writes and mends message files.\n"
                                "\n"
                                "  info     says what is in a message file and who has it open\n"
                                "  read     takes records from the front, to standard output\n"
                                "  write    appends records from standard input\n"
                                "  repair   cuts a damaged file back to its whole records\n"
                                "\n"
                                "\"tmf info --help\", and so on, says more.\n";

static const char info_help_text[] =
    "Usage: tmf info [--json] FILE...\n"
    "\n"
    "Says what is in message files: records, lengths, stamp, byte order, and the\n"
    "readers and writers registered, each with its process id and whether it still\n"
    "holds its lock.  Nothing is registered, locked or changed.\n"
    "\n"
    "  --json   one JSON object a line for each file\n"
    "  --help   print this\n"
    "\n"
    "Exit status: 0 all shown; 1 a file could not be read, is not a message file or\n"
    "is damaged; 2 wrong command line.\n";

static const char read_help_text[] =
    "Usage: tmf read [options] FILE\n"
    "\n"
    "Takes records from the front of a message file and writes them to standard\n"
    "output, each followed by a newline.  Waits while a writer has the file open,\n"
    "ends when the file is empty and no writer is left.\n"
    "\n"
    "No other reader may have the file open.  A record is removed once it has been\n"
    "written: when standard output fails, the file still has it.\n"
    "\n"
    "  --raw            nothing between records\n"
    "  --hex            one line for each record, in hexadecimal\n"
    "  --json           one JSON object a line: number, length, data as \"hex\" and,\n"
    "                   when all of it is printable ASCII, as \"text\"\n"
    "  --count N        end after N records\n"
    "  --follow         wait for records for ever\n"
    "  --wait SECONDS   end when no record comes for so long, writers or not; 0 takes\n"
    "                   what is there\n"
    "  --keep           show all records and remove none; never waits\n"
    "  --shared         read beside other readers; removes a record before it is\n"
    "                   written, so that a failing output loses it\n"
    "  --help           print this\n"
    "\n"
    "Exit status: 0 done; 1 error; 2 wrong command line; 128 + signal number when\n"
    "SIGINT or SIGTERM ended it after a whole record.\n";

static const char write_help_text[] =
    "Usage: tmf write [options] FILE\n"
    "\n"
    "Appends one record for each line of standard input, without its newline, to a\n"
    "message file, which is created when it does not exist.  A record has 1 to 32761\n"
    "bytes; at one that has not, writing ends.\n"
    "\n"
    "  --null        records end with a NUL byte instead of a newline\n"
    "  --size N      records are N bytes each, nothing between them\n"
    "  --all-users   a file that is created may be read and written by all users\n"
    "  -v            print the number of records written\n"
    "  --help        print this\n"
    "\n"
    "Exit status: 0 all written; 1 error (the records before it are in the file);\n"
    "2 wrong command line; 128 + signal number when SIGINT or SIGTERM ended it after\n"
    "a whole record.\n";

static const char repair_help_text[] =
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
    "  --help       print this\n"
    "\n"
    "Exit status: 0 the file is sound, or is now; 1 error, or with --dry-run a damaged\n"
    "file; 2 wrong command line.\n";

struct subcommand {
    const char *name;
    int (*run)(int argc, char **argv);
    const char *help;
};

static const subcommand subcommands[] = {
    {"info", tmft_info_main, info_help_text},
    {"read", tmft_read_main, read_help_text},
    {"write", tmft_write_main, write_help_text},
    {"repair", tmft_repair_main, repair_help_text},
};

int tmft_usage_error(const char *text, const char *word)
{
    fprintf(stderr, "tmf: %s: %s\nTry \"tmf --help\".\n", text, word);
    return TMFT_EXIT_USAGE;
}

bool tmft_number(const char *word, int smallest, int largest, int &number)
{
    const char *const end = word + strlen(word);
    const auto [at, code] = std::from_chars(word, end, number);
    return code == std::errc() && at == end && number >= smallest && number <= largest;
}

void tmft_complain(const char *file, const char *text)
{
    fprintf(stderr, "tmf: %s: %s\n", file, text);
}

void tmft_complain_handle(const char *file, tmf_handle *h)
{
    char text[TMF_ERRMSG_SIZE];
    tmft_complain(file, tmf_geterrmsg(h, text));
}

void tmft_complain_code(const char *file, int code)
{
    tmft_complain(file, tmf_strerror(code));
}

int tmft_flush_output(int status)
{
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return status;
    fprintf(stderr, "tmf: writing standard output: %s\n", strerror(errno));
    return TMFT_EXIT_FAILED;
}

int tmft_close(tmf_handle *h, const char *file, int status)
{
    const int code = tmf_fclose(h);
    if (code == 0)
        return status;
    tmft_complain_code(file, code);
    return status == TMFT_EXIT_OK ? TMFT_EXIT_FAILED : status;
}

bool tmft_same_file(int fd, const char *file)
{
    struct stat a;
    struct stat b;
    return fstat(fd, &a) == 0 && stat(file, &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

static bool asks_help(int argc, char **argv)
{
    for (int i = 0; i < argc; i++) {
        if (strcmp(argv[i], "--help") == 0)
            return true;
    }
    return false;
}

int main(int argc, char **argv)
{
    fill_standard_files();
    tell_as("tmf");
    // A closed pipe and a file size limit are errors of a write, told and cleaned
    // up after like others.
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    if (argc < 2) {
        fputs(help_text, stderr);
        return TMFT_EXIT_USAGE;
    }
    for (const subcommand &command : subcommands) {
        if (strcmp(argv[1], command.name) != 0)
            continue;
        if (!asks_help(argc - 2, argv + 2))
            return command.run(argc - 2, argv + 2);
        fputs(command.help, stdout);
        return tmft_flush_output(TMFT_EXIT_OK);
    }
    if (strcmp(argv[1], "--help") == 0) {
        fputs(help_text, stdout);
        return tmft_flush_output(TMFT_EXIT_OK);
    }
    if (strcmp(argv[1], "--version") == 0) {
        puts("tmf " KESTRO_VERSION);
        return tmft_flush_output(TMFT_EXIT_OK);
    }
    return tmft_usage_error(argv[1][0] == '-' ? "unknown option" : "unknown subcommand", argv[1]);
}
