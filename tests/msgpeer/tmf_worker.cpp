// A user of message files that does what standard input says, one step a line,
// and answers each with a line "= RESULT" (a number or an error code), after a
// line "record HEX" for each record read.  It is built for other machines and
// word sizes too and uses nothing but the library and the language's own.
//
//   open NAME FILE MODE                    NAME stands for the handle from here on
//   write NAME TAG FIRST COUNT SIZES       records FIRST and on; SIZES a comma list, in turn
//   read NAME COUNT [FLAGS [LIMIT [LEN]]]  COUNT records, all to the end when 0; LIMIT -1: none
//   echo FROM TO COUNT                     reads records and writes them to the other
//   swap TO FROM TAG COUNT BURST SIZES     writes and reads in turn, BURST records at a time
//   info NAME                              "info RECORDS READERS WRITERS END"
//   end NAME                               the result is where the last record ended or began
//   close NAME
//
// At the end of input it ends without closing anything, as a killed user does.
#include "msgfile/tmf.h"
#include "tests/msgpeer/record_data.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

using words = std::vector<std::string>;

static std::map<std::string, tmf_handle *> files;

static words split(const std::string &text, char at)
{
    words parts;
    std::string part;
    for (const char c : text + at) {
        if (c != at) {
            part += c;
        } else if (!part.empty()) {
            parts.push_back(part);
            part.clear();
        }
    }
    return parts;
}

static int number(const words &w, size_t i, int otherwise = 0)
{
    return i < w.size() ? std::stoi(w[i]) : otherwise;
}

static int open_file(const words &w)
{
    tmf_handle *h = tmf_fopen(w.at(2).c_str(), number(w, 3));
    if (h == nullptr)
        return tmf_geterrno(nullptr);
    files[w[1]] = h;
    return 0;
}

static int close_file(const words &w)
{
    tmf_handle *h = files.at(w.at(1));
    files.erase(w[1]);
    return tmf_fclose(h);
}

static int write_one(tmf_handle *h, const std::string &tag, int n, const words &sizes)
{
    const int size = std::stoi(sizes[static_cast<size_t>(n) % sizes.size()]);
    const std::string data = record_data(tag, n, static_cast<size_t>(size));
    return tmf_fwrite(h, data.data(), size);
}

static int write_records(const words &w)
{
    const int first = number(w, 3);
    const int count = number(w, 4);
    const words sizes = split(w.at(5), ',');
    for (int n = first; n < first + count; n++) {
        const int rc = write_one(files.at(w[1]), w[2], n, sizes);
        if (rc != 0)
            return rc;
    }
    return count;
}

// As tmf_fread, or tmf_freadx when a limit is given; prints the record.
static int read_one(tmf_handle *h, int flags, int limit, int length, std::string &data)
{
    // A buffer of just this length, so that a byte too many is seen.
    data.assign(static_cast<size_t>(length < 0 ? 0 : length), '\0');
    const int got = limit < 0 ? tmf_fread(h, data.data(), length, flags)
                              : tmf_freadx(h, data.data(), length, flags, limit);
    if (got > 0) {
        data.resize(static_cast<size_t>(got));
        printf("record %s\n", hex_of(data).c_str());
    }
    return got;
}

static int read_records(const words &w)
{
    const int count = number(w, 2);
    int done = 0;
    std::string data;
    while (count == 0 || done < count) {
        const int got = read_one(files.at(w[1]), number(w, 3), number(w, 4, -1),
                                 number(w, 5, TMF_MAX_DATA), data);
        if (got < 0)
            return got;
        if (got == 0)
            break;
        done++;
    }
    return done;
}

static int echo_records(const words &w)
{
    const int count = number(w, 3);
    std::string data(TMF_MAX_DATA, '\0');
    for (int done = 0; done < count; done++) {
        const int got = tmf_freadx(files.at(w.at(1)), data.data(), TMF_MAX_DATA, 0, 600);
        if (got <= 0)
            return got;
        const int rc = tmf_fwrite(files.at(w.at(2)), data.data(), got);
        if (rc != 0)
            return rc;
    }
    return count;
}

static int swap_records(const words &w)
{
    const int count = number(w, 4);
    const int burst = number(w, 5);
    const words sizes = split(w.at(6), ',');
    std::string data;
    for (int first = 0; first < count; first += burst) {
        const int end = first + burst < count ? first + burst : count;
        for (int n = first; n < end; n++) {
            const int rc = write_one(files.at(w[1]), w[3], n, sizes);
            if (rc != 0)
                return rc;
        }
        for (int n = first; n < end; n++) {
            const int got = read_one(files.at(w[2]), 0, 600, TMF_MAX_DATA, data);
            if (got <= 0)
                return got;
        }
    }
    return count;
}

static int print_info(const words &w)
{
    int32_t records = 0;
    int32_t readers = 0;
    int32_t writers = 0;
    int32_t end = 0;
    const int rc =
        tmf_getinfo(files.at(w.at(1)), TMF_INFO_RECORDS, &records, TMF_INFO_READERS, &readers,
                    TMF_INFO_WRITERS, &writers, TMF_INFO_WRITE_OFFSET, &end, 0);
    printf("info %d %d %d %d\n", records, readers, writers, end);
    return rc;
}

static int last_end(const words &w)
{
    int32_t end = -1;
    (void)tmf_finfo(files.at(w.at(1)), TMF_FINFO_RECORD_END, &end, sizeof end); // always 0
    return end;
}

static void ignore_signal(int)
{
}

int main()
{
    const std::map<std::string, int (*)(const words &)> verbs = {
        {"open", open_file},    {"close", close_file},  {"write", write_records},
        {"read", read_records}, {"echo", echo_records}, {"swap", swap_records},
        {"info", print_info},   {"end", last_end},
    };
    struct sigaction action = {};
    action.sa_handler = ignore_signal; // a signal is to end a wait, not the process
    sigaction(SIGUSR1, &action, nullptr);

    std::string line;
    for (;;) {
        errno = 0;
        const int c = getchar();
        if (c == EOF) {
            if (errno != EINTR)
                break;
            clearerr(stdin);
            continue;
        }
        if (c != '\n') {
            line += static_cast<char>(c);
            continue;
        }
        const words w = split(line, ' ');
        line.clear();
        printf("= %d\n", verbs.at(w.at(0))(w));
        fflush(stdout);
    }
    return 0;
}
