// The programs of a storm that are none of ours: a writer and a reader of message files by the
// library's calls, a source of records for "tmf write", and a client of the server that keeps what
// was acknowledged to it.
//
// usage: storm_worker write FILE BOARD WRITER
//        storm_worker read FILE BOARD READER
//        storm_worker emit FILE TMF WRITER
//        storm_worker client CONNINFO ACKNOWLEDGED NUMBER SEED
#include "msgfile/tmf.h"
#include "tests/postgresql/load_client.h"
#include "tests/postgresql/pg_client.h"
#include "tests/storm/storm_board.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <memory>
#include <random>
#include <sys/prctl.h>

static volatile sig_atomic_t stopped;

// Comes again each second: the first may come just before a call begins to wait.
static void stop(int)
{
    stopped = 1;
    alarm(1);
}

static void pause_some(std::mt19937 &random, unsigned most_us)
{
    usleep(static_cast<useconds_t>(random() % most_us));
}

// Writes until it is told to stop.  A record that the library refuses (no room) is written again,
// with its number.
static int write_mail(const char *file, const char *board_file, uint32_t writer)
{
    const shared_board board(board_file);
    std::mt19937 random(writer);
    tmf_handle *h = tmf_fopen(file, 0);
    if (h == nullptr)
        return 1;
    auto &me = board->writers[writer];
    int refused = 0;
    uint32_t next = 1;
    while (stopped == 0 && next <= MAX_MAIL_SEQUENCE && refused < 200) {
        const std::string data = mail_data({writer, next});
        me.tried = next;
        if (tmf_fwrite(h, data.data(), static_cast<int>(data.size())) == 0) {
            me.acknowledged = next++;
            refused = 0;
        } else {
            refused++;
        }
        // In bursts, so that the file is emptied now and then, and readers wait.
        if (random() % 40 == 0)
            pause_some(random, 60000);
        else if (random() % 4 == 0 || refused != 0)
            pause_some(random, 3000);
    }
    return tmf_fclose(h) != 0 || refused != 0 ? 1 : 0;
}

// Takes records until it is told to stop, writers or not.
static int read_mail(const char *file, const char *board_file, int reader)
{
    const shared_board board(board_file);
    tmf_handle *h = tmf_fopen(file, TMF_MODE_READ);
    if (h == nullptr)
        return 1;
    static std::array<uint32_t, MAX_MAIL_WRITERS> newest; // that this process has taken
    std::string buffer(LONGEST_MAIL + 1, '\0');
    int result = 0;
    while (stopped == 0 && result == 0) {
        board->in_read[reader] = true;
        const int n = tmf_fread(h, buffer.data(), static_cast<int>(buffer.size()), 2 | 4 | 8);
        if (n > 0) {
            mail m = {};
            if (!parse_mail(buffer.substr(0, static_cast<size_t>(n)), m)) {
                fprintf(stderr, "a record of %d bytes is none of the storm's\n", n);
                board->faults++;
            } else if (m.sequence <= newest[m.writer]) {
                fprintf(stderr, "record %u of writer %u behind %u\n", m.sequence, m.writer,
                        newest[m.writer]);
                board->faults++;
            } else {
                newest[m.writer] = m.sequence;
                board->deliveries[m.writer][m.sequence]++;
            }
        } else if (n < 0 && n != TMF_ETIMEOUT && n != TMF_ESIGNAL) {
            fprintf(stderr, "code %d\n", n);
            result = 1;
        }
        board->in_read[reader] = false;
    }
    return tmf_fclose(h) != 0 ? 1 : result;
}

// Becomes "tmf write", which gets records one after the other through a pipe.
static int emit_mail(const char *file, const char *tmf, uint32_t writer)
{
    int ends[2];
    if (pipe(ends) != 0)
        return 1;
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ends[0]);
        std::mt19937 random(writer);
        for (uint32_t sequence = 1; sequence <= MAX_MAIL_SEQUENCE; sequence++) {
            const std::string data = mail_data({writer, sequence});
            std::string framed(4, '\0');
            for (size_t i = 0; i < framed.size(); i++)
                framed[i] = static_cast<char>(data.size() >> (24 - 8 * i));
            framed += data;
            if (write(ends[1], framed.data(), framed.size()) != static_cast<ssize_t>(framed.size()))
                break;
            pause_some(random, 4000);
        }
        _exit(0);
    }
    dup2(ends[0], STDIN_FILENO);
    close(ends[0]);
    close(ends[1]);
    execl(tmf, "tmf", "write", "--framed", "-v", file, nullptr);
    return 127;
}

// Commits transactions until it is told to stop; appends the number of each one that was
// acknowledged to a file.
static int work_on(const char *conninfo, const char *acknowledged, int number, unsigned seed)
{
    const int acks = open(acknowledged, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (acks < 0)
        return 1;
    const std::unique_ptr<load_work, void (*)(load_work *)> work(load_work_new(number, seed, 1),
                                                                 load_work_free);
    std::mt19937 random(seed);
    std::unique_ptr<pg_client> session;
    while (stopped == 0) {
        const load_transaction made = load_work_next(*work);
        try {
            if (session == nullptr)
                session = std::make_unique<pg_client>(conninfo);
            const std::string xid = session->value(made.work + "SELECT txid_current();");
            session->run(made.end);
            const int64_t id = strtoll(xid.c_str(), nullptr, 10);
            if (made.end == "COMMIT" && write(acks, &id, sizeof id) != sizeof id)
                return 1;
        } catch (const pg_error &) {
            session.reset(); // the server is gone: what it had not answered may be committed or not
        }
        pause_some(random, 40000);
    }
    return 0;
}

int main(int argc, char **argv)
{
    struct sigaction action = {};
    action.sa_handler = stop;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGALRM, &action, nullptr);
    signal(SIGXFSZ, SIG_IGN); // a file that may not grow is an error that the library gives
    const std::string what = argc > 4 ? argv[1] : "";
    if (what == "write" && argc == 5)
        return write_mail(argv[2], argv[3], static_cast<uint32_t>(atoi(argv[4])));
    if (what == "read" && argc == 5)
        return read_mail(argv[2], argv[3], atoi(argv[4]));
    if (what == "emit" && argc == 5) {
        signal(SIGTERM, SIG_DFL);
        signal(SIGXFSZ, SIG_DFL);
        return emit_mail(argv[2], argv[3], static_cast<uint32_t>(atoi(argv[4])));
    }
    if (what == "client" && argc == 6)
        return work_on(argv[2], argv[3], atoi(argv[4]), static_cast<unsigned>(atoi(argv[5])));
    return 2;
}
