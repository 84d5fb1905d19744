// The same steps by two implementations, each on a file of its own: the answers
// and the bytes of the files are the same, but for the process ids and the time
// at which each file came into use.
#include "msgfile/tmf.h"
#include "tests/msgpeer/pair_test.h"

#include <csignal>
#include <fcntl.h>
#include <memory>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

// One implementation's reader and writer (a process opens a file only once), and
// the file they use.
struct side {
    std::string path;
    std::unique_ptr<participant> reader;
    std::unique_ptr<participant> writer;

    participant &user(char who)
    {
        return who == 'r' ? *reader : *writer;
    }
    bool is_own(int pid) const
    {
        return pid == reader->pid() || pid == writer->pid();
    }
};

// The file without what two files cannot have in common.
static std::string comparable(const side &s)
{
    std::string file = read_file(s.path);
    if (file.size() < AT_DATA)
        return "only " + std::to_string(file.size()) + " bytes";
    for (size_t at = AT_READER_SLOTS; at < AT_DATA; at += 4) {
        if (s.is_own(host32_at(file, at)))
            file.replace(at, 4, "user");
    }
    for (size_t at = AT_STAMP; at < AT_STAMP + 8; at++) {
        if (isxdigit(static_cast<unsigned char>(file[at])) == 0 || isupper(file[at]) != 0)
            return "stamp is not hexadecimal";
        file[at] = 's';
    }
    return file;
}

static testing::AssertionResult same_files(const side &one, const side &other)
{
    const std::string a = comparable(one);
    const std::string b = comparable(other);
    if (a == b)
        return testing::AssertionSuccess();
    size_t at = 0;
    while (at < a.size() && at < b.size() && a[at] == b[at])
        at++;
    return testing::AssertionFailure()
           << a.size() << " and " << b.size() << " bytes, different from offset " << at << ": "
           << hex_of(a.substr(at, 16)) << " and " << hex_of(b.substr(at, 16));
}

class SameBytesTest : public PairTest {
  protected:
    void SetUp() override
    {
        PairTest::SetUp();
        if (IsSkipped())
            return;
        begin(one_, GetParam().a, "one");
        begin(other_, GetParam().b, "other");
    }
    void begin(side &s, peer kind, const std::string &name)
    {
        s.path = path(name);
        s.reader = std::make_unique<participant>(kind);
        s.writer = std::make_unique<participant>(kind);
    }

    // Lets both begin a step, FILE standing for their file.
    void start_both(char who, const std::string &step)
    {
        const size_t file = step.find("FILE");
        for (side *s : {&one_, &other_}) {
            std::string own = step;
            if (file != std::string::npos)
                own.replace(file, 4, s->path);
            s->user(who).start(own);
        }
    }

    // Lets both take a step and compares all.
    int both(char who, const std::string &step)
    {
        SCOPED_TRACE(step);
        start_both(who, step);
        const int result = one_.user(who).result();
        EXPECT_EQ(result, other_.user(who).result());
        EXPECT_EQ(one_.user(who).records(), other_.user(who).records());
        EXPECT_EQ(one_.user(who).info(), other_.user(who).info());
        EXPECT_TRUE(same_files(one_, other_));
        return result;
    }

    side one_;
    side other_;
};

TEST_P(SameBytesTest, StepByStep)
{
    struct row {
        char who;
        const char *step;
        int result;
    };
    static const row rows[] = {
        {'w', "open f FILE 0", 0},
        {'w', "write f A 1 3 10,20,1", 3},
        {'w', "end f", 4401}, // 4352 and records of 26, 7 and 16 bytes
        {'w', "read f 1", TMF_EWRITE_ACCESS},
        {'r', "open f FILE 1", 0},
        {'r', "write f A 1 1 10", TMF_EREAD_ACCESS},
        {'r', "info f", 0},
        {'r', "read f 1 1", 1}, // kept
        {'r', "read f 1 1 -1 5", 1},
        {'r', "end f", 4352},
        {'r', "read f 1 0 -1 5", 1}, // the rest of the record is lost
        {'r', "read f 1 0 -1 -1", TMF_EBUFFER_SIZE},
        {'r', "read f 1", 1},
        {'r', "end f", 4378},
        {'r', "read f 1 0 -1 0", 0}, // takes the last record, copying nothing
        {'r', "info f", 0},
        {'w', "write f B 1 2 40000", TMF_ERECORD_SIZE},
        {'w', "write f B 1 3 32761", 3},
        {'r', "read f 1", 1},
        {'w', "write f B 4 1 100", 1}, // behind 64 KiB
        {'r', "read f 3", 3},          // the file is cut
        {'w', "write f B 5 1 100", 1},
        {'w', "close f", 0},
        {'r', "read f 0", 1},
        {'r', "close f", 0},
        {'w', "open f FILE 2", 0},
        {'w', "write f C 1 4 30,3", 4},
        {'r', "open f FILE 6", TMF_ECOPYMODE},
        {'r', "open f FILE 7", 0},
        {'r', "read f 3", 3},
        {'r', "read f 0 0 -1 8", 1},
        {'r', "info f", 0},
        {'r', "close f", 0},
        {'r', "open f FILE 2", TMF_EWRITER_EXCLUSIVE},
        {'r', "open f FILE 0", TMF_EWRITER_EXCLUSIVE},
        {'w', "close f", 0},
        {'r', "open f FILE 7", 0},
        {'r', "close f", 0},
        {'r', "open f FILE 1", 0},
        {'r', "read f 4", 4},
        {'w', "open f FILE 0", 0},
        {'w', "write f G 0 2 32761,28411", 2}, // to 65536: 4352 + 32767 + 28417
        {'r', "read f 2", 2},                  // not cut
        {'w', "write f G 0 2 32761,28412", 2}, // one byte more
        {'r', "read f 2", 2},                  // cut
        {'w', "close f", 0},
        {'r', "read f 0", 0},
        {'r', "close f", 0},
        {'r', "open f FILE 0", 0}, // a second writer of the same file
        {'r', "write f D 1 1 10", 1},
        {'w', "open f FILE 0", 0},
        {'w', "write f E 1 1 10", 1},
        {'r', "close f", 0},
        {'w', "write f E 2 1 10", 1},
        {'w', "close f", 0},
    };
    for (const row &r : rows) {
        EXPECT_EQ(both(r.who, r.step), r.result) << r.step;
        if (HasFailure())
            return;
    }
    EXPECT_EQ(disagreements(one_.path) + disagreements(other_.path), "");
}

// A process that is no user of the files and has bytes of both locked.
class lock_holder {
  public:
    lock_holder(const std::vector<std::string> &paths, off_t offset, off_t length)
    {
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0 || (pid_ = fork()) < 0)
            throw std::runtime_error("no process to hold locks");
        if (pid_ == 0) {
            for (const std::string &path : paths) {
                const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
                if (lseek(fd, offset, SEEK_SET) != offset || lockf(fd, F_LOCK, length) != 0)
                    _exit(1);
            }
            if (write(ready[1], "", 1) != 1)
                _exit(1);
            for (;;)
                pause();
        }
        close(ready[1]);
        char byte = 0;
        const bool held = read(ready[0], &byte, 1) == 1;
        close(ready[0]);
        if (!held)
            throw std::runtime_error("locks refused");
    }
    ~lock_holder()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    lock_holder(const lock_holder &) = delete;
    lock_holder &operator=(const lock_holder &) = delete;

  private:
    pid_t pid_ = -1;
};

// Files with all readers or writers registered, whose slots somebody holds.
TEST_P(SameBytesTest, AFullFile)
{
    struct row {
        size_t at_count;
        std::string count;
        size_t at_map;
        size_t map_size;
        size_t at_slots;
        size_t slots_size;
        const char *mode;
        int result;
    };
    const bool big = is_big_endian(GetParam().a);
    const row rows[] = {
        {AT_NUM_READERS, std::string(big ? "\0\x10" : "\x10\0", 2), AT_READER_MAP, 2,
         AT_READER_SLOTS, 64, "1", TMF_EMAXREADERS},
        {AT_NUM_WRITERS, big ? "\x03\xF0" : "\xF0\x03", AT_WRITER_MAP, 126, AT_WRITER_SLOTS, 4032,
         "0", TMF_EMAXWRITERS},
    };
    for (const row &r : rows) {
        std::string file = new_message_file(big, 0);
        file.replace(r.at_count, 2, r.count);
        file.replace(r.at_map, r.map_size, std::string(r.map_size, '\xFF'));
        write_file(one_.path, file);
        write_file(other_.path, file);
        const lock_holder users({one_.path, other_.path}, static_cast<off_t>(r.at_slots),
                                static_cast<off_t>(r.slots_size));
        EXPECT_EQ(both('r', std::string("open f FILE ") + r.mode), r.result);
        EXPECT_EQ(read_file(one_.path), file);
    }
}

// The open fails, and the registration stays until somebody removes it.
TEST_P(SameBytesTest, ASlotThatSomebodyElseHasLocked)
{
    EXPECT_EQ(both('w', "open f FILE 0"), 0);
    EXPECT_EQ(both('w', "close f"), 0);
    for (const side *s : {&one_, &other_}) {
        std::string file = read_file(s->path);
        file[AT_WRITER_SLOTS + 1] = 7; // what the stranger left there
        write_file(s->path, file);
    }
    {
        const lock_holder stranger({one_.path, other_.path}, AT_WRITER_SLOTS, 4);
        EXPECT_EQ(both('w', "open f FILE 0"), 1);
        EXPECT_EQ(host16_at(read_file(one_.path), AT_NUM_WRITERS), 1);
        EXPECT_EQ(both('w', "open f FILE 0"), 0); // in the next slot
        EXPECT_EQ(host16_at(read_file(one_.path), AT_NUM_WRITERS), 2);
    }
    EXPECT_EQ(both('w', "info f"), 0);
    EXPECT_EQ(host16_at(read_file(one_.path), AT_NUM_WRITERS), 1);
    EXPECT_EQ(both('w', "close f"), 0);
}

TEST_P(SameBytesTest, UsersThatDied)
{
    EXPECT_EQ(both('r', "open f FILE 3"), 0);
    EXPECT_EQ(both('w', "open f FILE 2"), 0);
    EXPECT_EQ(both('w', "write f A 1 2 10"), 2);
    for (side *s : {&one_, &other_}) {
        s->reader = std::make_unique<participant>(s == &one_ ? GetParam().a : GetParam().b);
    }
    EXPECT_EQ(both('w', "info f"), 0);
    EXPECT_EQ(both('r', "open f FILE 3"), 0);
    for (side *s : {&one_, &other_}) {
        s->writer = std::make_unique<participant>(s == &one_ ? GetParam().a : GetParam().b);
    }
    EXPECT_EQ(both('r', "read f 0"), 2); // without writers no wait for a third
    EXPECT_EQ(both('w', "open f FILE 2"), 0);
    EXPECT_EQ(both('w', "close f"), 0);
    EXPECT_EQ(both('r', "close f"), 0);
}

class TimedTest : public SameBytesTest {}; // takes a second

// Both wait at the same time, so each file names ports of its own, which are
// compared with what they were.
TEST_P(TimedTest, AWaitThatEndsByTime)
{
    make("one");
    make("other");
    const std::string ports[] = {read_file(one_.path).substr(AT_SIGNAL_PORTS, 32),
                                 read_file(other_.path).substr(AT_SIGNAL_PORTS, 32)};
    const auto same_but_ports = [&] {
        std::string files[] = {comparable(one_), comparable(other_)};
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ(files[i].substr(AT_SIGNAL_PORTS, 32), ports[i]);
            files[i].erase(AT_SIGNAL_PORTS, 32);
        }
        return files[0] == files[1];
    };
    for (const char *step : {"open f FILE 1", "read f 1 0 1", "info f", "close f"}) {
        SCOPED_TRACE(step);
        start_both('r', step);
        EXPECT_EQ(one_.reader->result(), 0);
        EXPECT_EQ(other_.reader->result(), 0);
        EXPECT_EQ(one_.reader->info(), other_.reader->info());
        EXPECT_TRUE(same_but_ports());
    }
}

// Steps by chance, no more than one process could wait for: a reader reads what
// is there, or finds the end when no writer is left and it has read before.
TEST_P(SameBytesTest, ByChance)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    bool writing = false;
    bool reading = false;
    bool copying = false;
    bool has_read = false;
    int records = 0;
    int copied = 0;
    int number = 0;
    for (int step = 0; step < 120 && !HasFailure(); step++) {
        switch (below(10)) {
        case 0:
            (void)both('w', writing ? "close f" : "open f FILE " + std::to_string(2 * below(2)));
            writing = !writing;
            break;
        case 1:
            copying = !reading && below(4) == 0;
            (void)both('r', reading   ? "close f"
                            : copying ? "open f FILE 7"
                                      : "open f FILE " + std::to_string(1 + 2 * below(2)));
            reading = !reading;
            has_read = false;
            copied = 0;
            break;
        case 2:
            if (reading) {
                EXPECT_EQ(both('r', "info f"), 0);
            }
            break;
        case 3:
        case 4:
        case 5:
        case 6:
            if (writing) {
                const int count = 1 + below(3);
                const int size = below(4) == 0 ? 1 + below(32761) : 1 + below(200);
                EXPECT_EQ(both('w', "write f R " + std::to_string(number) + " " +
                                        std::to_string(count) + " " + std::to_string(size)),
                          count);
                number += count;
                records += count;
            }
            break;
        default: {
            const int there = copying ? records - copied : records;
            if (!reading || (there == 0 && (writing || !has_read) && !copying))
                break;
            const bool keep = !copying && below(3) == 0;
            const int length = below(3) == 0 ? 1 + below(100) : 32761;
            const int count = there == 0 || keep ? 1 : 1 + below(there);
            EXPECT_EQ(both('r', "read f " + std::to_string(count) + (keep ? " 1 -1 " : " 0 -1 ") +
                                    std::to_string(length)),
                      there == 0 ? 0 : count);
            if (there > 0) {
                has_read = true;
                copied += copying ? count : 0;
                records -= copying || keep ? 0 : count;
            }
        }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Peers, SameBytesTest,
                         testing::Values(pair_of{"LibraryAndPython", peer::library, peer::python},
                                         pair_of{"Word32And64", peer::library32, peer::library},
                                         pair_of{"S390xAndPython", peer::s390x, peer::python_big}),
                         pair_name);
INSTANTIATE_TEST_SUITE_P(Peers, TimedTest,
                         testing::Values(pair_of{"LibraryAndPython", peer::library, peer::python}),
                         pair_name);
