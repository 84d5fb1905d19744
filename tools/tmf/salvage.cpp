// tmf salvage: the whole records of a damaged message file into another file, and what was lost
// by offset.  The damaged file is read and never written.
#include "tools/tmf/tmf_tool.h"
#include "tools/tmf/walk.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

enum salvage_format { SALVAGE_MESSAGE_FILE, SALVAGE_TEXT, SALVAGE_FRAMED };

struct salvage_options {
    std::vector<const char *> files;
    const char *file = nullptr; // the first of them
    const char *out = nullptr;  // the second; "-": standard output
    int format = SALVAGE_MESSAGE_FILE;
};
static salvage_options options;

static constexpr cli_kind FORMAT = {.again = "more than one format"};
static constexpr cli_option rows[] = {
    {"--text", FORMAT, cli_choice{&options.format, SALVAGE_TEXT}},
    {"--framed", FORMAT, cli_choice{&options.format, SALVAGE_FRAMED}},
    {"FILE OUT",
     {.word = "FILE OUT", .lacking = "which file?", .may_be_empty = false, .may_be_hyphen = true},
     &options.files},
};

// ---- where the records go

struct salvage_sink {
    tmf_handle *h = nullptr; // of a message file
    int fd = -1;             // of a text or framed stream
    std::string out;         // not written yet
};
static constexpr size_t most_kept = 64 * 1024;

static bool to_standard_output()
{
    return strcmp(options.out, "-") == 0;
}

static outcome sink_failed()
{
    return to_standard_output() ? cli_output_failed() : tmft_complain(options.out, strerror(errno));
}

static outcome flush(salvage_sink &sink)
{
    for (size_t at = 0; at < sink.out.size();) {
        const ssize_t put = write(sink.fd, sink.out.data() + at, sink.out.size() - at);
        if (put >= 0)
            at += static_cast<size_t>(put);
        else if (errno != EINTR)
            return sink_failed();
    }
    sink.out.clear();
    return {};
}

static outcome put(salvage_sink &sink, std::string_view record)
{
    if (options.format == SALVAGE_MESSAGE_FILE) {
        if (tmf_fwrite(sink.h, record.data(), static_cast<int>(record.size())) == 0)
            return {};
        return tmft_complain_handle(options.out, sink.h);
    }
    if (options.format == SALVAGE_FRAMED) {
        tmft_put_framed(sink.out, record);
    } else {
        sink.out += record;
        sink.out += '\n';
    }
    return sink.out.size() < most_kept ? outcome() : flush(sink);
}

// A file of this name must not be there, so that none is lost; neither is the damaged one.
static outcome open_sink(salvage_sink &sink)
{
    if (to_standard_output()) {
        sink.fd = STDOUT_FILENO;
        return {};
    }
    sink.fd = open(options.out, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (sink.fd < 0)
        return errno == EEXIST
                   ? tmft_complain(options.out, "there is such a file already; name another one")
                   : sink_failed();
    if (options.format != SALVAGE_MESSAGE_FILE)
        return {};
    // An empty file becomes a message file.  Closed first: a close drops its locks.
    close(sink.fd);
    sink.fd = -1;
    sink.h = tmf_fopen(options.out, TMF_MODE_EXCLUSIVE);
    if (sink.h != nullptr)
        return {};
    outcome failed = tmft_complain_handle(options.out, nullptr);
    (void)unlink(options.out); // what failed is told
    return failed;
}

// Has a file, and its name, on the disk, since the damaged one may be removed now.
static outcome sync_sink()
{
    const std::string name = options.out;
    const size_t slash = name.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : name.substr(0, slash + 1);
    for (const std::string &path : {name, folder}) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        const bool done = fd >= 0 && (fsync(fd) == 0 || (path == folder && errno == EINVAL));
        outcome failed = done ? outcome() : tmft_complain(path.c_str(), strerror(errno));
        if (fd >= 0)
            close(fd);
        if (!failed)
            return failed;
    }
    return {};
}

// Ends the output; one that is not whole is removed.
static outcome close_sink(salvage_sink &sink, outcome so_far)
{
    const bool opened = sink.h != nullptr || sink.fd >= 0;
    if (so_far && sink.fd >= 0)
        so_far = flush(sink);
    if (sink.h != nullptr)
        so_far = tmft_close(sink.h, options.out, std::move(so_far));
    if (to_standard_output())
        return so_far;
    if (sink.fd >= 0 && close(sink.fd) != 0 && so_far)
        so_far = sink_failed();
    if (so_far)
        so_far = sync_sink();
    if (!so_far && opened)
        (void)unlink(options.out); // what failed is told
    return so_far;
}

// ---- records

struct salvage_count {
    int64_t records = 0;
    int64_t bytes = 0;  // of data
    int64_t places = 0; // where something was lost
    int64_t lost = 0;   // bytes there
    int64_t uncounted = 0;
};

// To standard error when standard output has the records.
static FILE *report()
{
    return to_standard_output() ? stderr : stdout;
}

static outcome copy_pieces(tmft_walk &walk, salvage_sink &sink, salvage_count &count)
{
    for (tmft_piece piece;;) {
        if (outcome done = tmft_next_piece(walk, piece); !done)
            return tmft_complain(options.file, done.text().c_str());
        if (piece.kind == TMFT_PIECE_END)
            return {};
        const bool lost = piece.kind == TMFT_PIECE_LOST;
        if (!piece.wrong.empty())
            fprintf(report(), "    %" PRId64 " to %" PRId64 ": %s: %s\n", piece.at,
                    piece.at + piece.length, lost ? "lost" : "taken", piece.wrong.c_str());
        if (lost) {
            count.places++;
            count.lost += piece.length;
            continue;
        }
        if (outcome done = put(sink, piece.data); !done)
            return done;
        count.records++;
        count.bytes += static_cast<int64_t>(piece.data.size());
    }
}

static outcome copy_all(tmft_walk &walk, salvage_sink &sink, salvage_count &count)
{
    if (outcome done = copy_pieces(walk, sink, count); !done)
        return done;
    const int64_t before = count.records;
    if (outcome done = tmft_walk_uncounted(walk); !done)
        return tmft_complain(options.file, done.text().c_str());
    outcome done = copy_pieces(walk, sink, count);
    count.uncounted = count.records - before;
    return done;
}

static void print_count(const salvage_count &count)
{
    FILE *const to = report();
    if (count.uncounted != 0)
        fprintf(to, "    uncounted %s behind the end, taken, too\n",
                tmft_records_text(count.uncounted).c_str());
    fprintf(to, "    salvaged  %s, %" PRId64 " bytes of data\n",
            tmft_records_text(count.records).c_str(), count.bytes);
    fprintf(to, "    lost      %" PRId64 " bytes at %" PRId64 " %s\n", count.lost, count.places,
            count.places == 1 ? "place" : "places");
}

static outcome salvage(tmft_walk &walk)
{
    salvage_sink sink;
    salvage_count count;
    outcome done = open_sink(sink);
    if (done)
        done = copy_all(walk, sink, count);
    done = close_sink(sink, std::move(done));
    if (done)
        print_count(count);
    return done;
}

// ---- the command

// Where the records are: what the file's beginning says, or, when that is none, the frames
// alone.
static outcome find_records(tmft_walk &walk, int fd)
{
    tmft_facts facts;
    outcome looked = tmft_look_at(fd, facts);
    if (looked) {
        walk = tmft_walk_by_area(fd, facts);
        fprintf(report(), "%s\n", options.file);
        return {};
    }
    struct stat about;
    if (fstat(fd, &about) != 0)
        return outcome_bad(strerror(errno));
    if (outcome found = tmft_walk_without_area(walk, fd, about.st_size); !found)
        return looked;
    fprintf(report(),
            "%s\n    0 to %d: no beginning of a message file; records are taken from there on, up "
            "to the end mark\n",
            options.file, TMF_DATA_START);
    return {};
}

// What the rows cannot say of operands.
static outcome take_files()
{
    if (options.files.size() > 2)
        return cli_usage("more than two files", options.files[2]);
    if (options.files.size() < 2)
        return cli_usage("into which file?", options.files[0]);
    options.file = options.files[0];
    options.out = options.files[1];
    return {};
}

static outcome run()
{
    if (outcome done = take_files(); !done)
        return done;
    if (to_standard_output() && options.format == SALVAGE_MESSAGE_FILE)
        return cli_usage("standard output takes --text or --framed", "-");
    if (to_standard_output() && tmft_same_file(STDOUT_FILENO, options.file))
        return tmft_complain(options.file, "is standard output, too");
    int fd = -1;
    tmft_walk walk;
    outcome done = tmft_open_still(fd, options.file);
    if (done)
        done = find_records(walk, fd);
    if (!done)
        done = tmft_complain(options.file, done.text().c_str());
    else
        done = salvage(walk);
    if (fd >= 0)
        close(fd);
    return done;
}

static const char help[] =
    "Usage: tmf salvage [--text | --framed] FILE OUT\n"
    "\n"
    "Brings every whole record of a damaged message file into a new message file, and\n"
    "says what was lost, by offset.  A record is whole when the length in front of it\n"
    "and the one behind it agree; behind a damaged one the next whole one is looked\n"
    "for.  FILE is not changed; its readers and writers wait meanwhile.  OUT must not\n"
    "be there.\n"
    "\n"
    "  --text     OUT gets each record followed by a newline, as from tmf read\n"
    "  --framed   OUT gets each record with its length in front, as from tmf read\n"
    "             --framed\n"
    "  --help     print this (also -h)\n"
    "\n"
    "With --text and --framed OUT may be \"-\", standard output; what was lost goes to\n"
    "standard error then.\n"
    "\n"
    "Exit status: 0 OUT has all whole records, and is on the disk; 1 error (a part of\n"
    "OUT is removed); 2 wrong command line.\n";

constinit const cli_command tmf_salvage_row = {
    .name = "salvage",
    .summary = "brings the whole records of a damaged file into another one",
    .run = run,
    .options = rows,
    .help = help,
};
