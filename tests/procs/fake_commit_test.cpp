// A writer whose records spell commit entries, killed inside its writes again and
// again, beside a reader that follows: what a client can write changes nothing.
#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_writer.h"
#include "fwutil/fwutil.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

constexpr int BIGINTS = 7;  // a commit entry has as many bytes
constexpr int COPIES = 400; // in a record
constexpr size_t IMAGE_SIZE = size_t{8} * (1 + BIGINTS * COPIES);
constexpr int LARGE = 420; // records of a transaction that does not fit into memory's share

static int kills()
{
    const char *text = getenv("KESTRO_WRITER_KILLS");
    const int given = text != nullptr ? atoi(text) : 0;
    return given > 0 ? given : 60;
}

// What the processes tell each other.
struct shared_view {
    std::atomic<int64_t> committed{0};    // the newest record that the log has, at least
    std::atomic<int64_t> transactions{0}; // commits that returned
    std::atomic<int64_t> begun{0};        // writers that could open the log
    std::atomic<int64_t> delivered{0};    // records, in order
    std::atomic<bool> wrong{false};       // one that was not the next
};
static shared_view *view = nullptr;

// A number and copies of a whole commit entry of a file without a salt.  The names are
// of such lengths that these stand at multiples of 8 bytes, as entries do.
static fwu_layout bigints_layout()
{
    fwu_layout layout;
    layout.dbname = "TESTDB";
    layout.dsetname = "BIGS";
    layout.items = {{"NUMBER", 'I', 8, 1, 0}, {"WORDS", 'I', 8, BIGINTS * COPIES, 0}};
    return layout;
}

static std::string image_of(int64_t number)
{
    static const std::string copies = [] {
        std::vector<unsigned char> entry;
        fwu_entry_put_commit(entry, 7, {{1, 1, 1}, 1, 1}, {}, 0);
        std::string text;
        for (int i = 0; i < COPIES; i++)
            text.append(entry.begin(), entry.end());
        return text;
    }();
    std::string image(8, '\0');
    memcpy(image.data(), &number, sizeof number);
    return image + copies;
}

// Appends until it is killed; 1 when it cannot.
static int write_on(const std::string &config_file, unsigned seed)
{
    std::mt19937 random(seed);
    fwu_config config;
    fwu_writer *writer = nullptr;
    if (fwu_config_read(config, config_file.c_str()) != 0 || fwu_writer_open(&writer, config) != 0)
        return 1;
    view->begun++;
    const fwu_layout layout = bigints_layout();
    auto number = static_cast<int64_t>(fwu_writer_last_lsn(writer));
    for (;;) {
        const int n = random() % 40 == 0 ? LARGE : 1 + static_cast<int>(random() % 3);
        bool good = fwu_writer_begin(writer, nullptr) == 0;
        for (int i = 0; good && i < n; i++)
            good = fwu_writer_record(writer, FWU_OP_INSERT, layout, 1700000000, IMAGE_SIZE, nullptr,
                                     image_of(++number).data()) == 0;
        const fwu_commit commit = {1700000000000000 + number, 1, static_cast<uint64_t>(number)};
        if (!good || fwu_writer_commit(writer, commit) != 0)
            return 1;
        view->committed = number;
        view->transactions++;
        if (random() % 8 == 0 && fwu_writer_acknowledge(writer) != 0)
            return 1;
    }
}

static int take(uint32_t, const char *, const char *, int32_t, int32_t, int32_t recnum,
                int32_t reclen, const void *, const void *after)
{
    const int64_t next = view->delivered + 1;
    if (recnum != next || reclen != static_cast<int32_t>(IMAGE_SIZE) ||
        image_of(next).compare(0, IMAGE_SIZE, static_cast<const char *>(after), IMAGE_SIZE) != 0) {
        view->wrong = true;
        return -1;
    }
    view->delivered = next;
    return 0;
}

class FakeCommitTest : public testing::Test {
  protected:
    void SetUp() override
    {
        void *at =
            mmap(nullptr, sizeof *view, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(at, MAP_FAILED);
        view = new (at) shared_view();
        write_file(config, "log-directory log\nlog-file-size 16M\nsync none\n");
        ASSERT_EQ(mkdir(dir.file("log").c_str(), 0700), 0);
    }
    ~FakeCommitTest() override
    {
        if (reader > 0)
            kill(reader, SIGKILL);
        if (reader > 0)
            waitpid(reader, nullptr, 0);
        munmap(view, sizeof *view);
    }

    // A process that ends with what the function returns; its errors go to a file.
    template <typename F> pid_t start(const std::string &errors, F function) const
    {
        const pid_t pid = fork();
        if (pid != 0)
            return pid;
        if (freopen(dir.file(errors).c_str(), "w", stderr) == nullptr)
            _exit(1);
        _exit(function());
    }

    // Nothing of the log that the reader has behind it stays.
    void remove_read_files() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(dir.file("log")))
            if (entry.path().filename().string().starts_with("fw0001-"))
                names.push_back(entry.path().string());
        std::sort(names.begin(), names.end());
        for (size_t i = 0; i + 2 < names.size(); i++)
            std::filesystem::remove(names[i]);
    }

    tempdir dir;
    const std::string config = dir.file("fwutil.cfg");
    pid_t reader = -1;
};

TEST_F(FakeCommitTest, AReaderGetsEachRecordOnceAndTheNextWriterAlwaysStarts)
{
    std::mt19937 random(std::random_device{}());
    reader = start("reader.err", [&] {
        Fwu_synconly(0);
        return Fwu_process(take, config.c_str(), dir.file("status").c_str(), nullptr) == 0 ? 0 : 1;
    });
    for (int i = 1; i <= kills(); i++) {
        SCOPED_TRACE("kill " + std::to_string(i));
        const auto seed = static_cast<unsigned>(random());
        const pid_t writer = start("writer.err", [&] { return write_on(config, seed); });
        int status = 0;
        const auto opened = [&] {
            return view->begun >= i || waitpid(writer, &status, WNOHANG) == writer;
        };
        ASSERT_TRUE(poll_until(opened));
        ASSERT_EQ(view->begun, i) << read_file(dir.file("writer.err"));
        usleep(static_cast<useconds_t>(random() % 100000)); // any moment of a write
        kill(writer, SIGKILL);
        ASSERT_EQ(waitpid(writer, &status, 0), writer);
        ASSERT_TRUE(WIFSIGNALED(status)) << read_file(dir.file("writer.err"));
        const auto caught_up = [&] {
            return view->delivered >= view->committed || waitpid(reader, &status, WNOHANG) != 0;
        };
        if (i % 4 == 0) {
            ASSERT_TRUE(poll_until(caught_up));
            ASSERT_GE(view->delivered, view->committed) << read_file(dir.file("reader.err"));
            remove_read_files();
        }
    }
    ASSERT_EQ(waitpid(reader, nullptr, WNOHANG), 0) << read_file(dir.file("reader.err"));
    // What the last one killed has left is cut off; the rest is there.
    fwu_config last;
    fwu_writer *writer = nullptr;
    ASSERT_EQ(fwu_config_read(last, config.c_str()), 0);
    ASSERT_EQ(fwu_writer_open(&writer, last), 0);
    const auto newest = static_cast<int64_t>(fwu_writer_last_lsn(writer));
    (void)fwu_writer_close(writer);
    EXPECT_TRUE(poll_until([&] { return view->delivered >= newest; }));
    kill(reader, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(reader, &status, 0), reader);
    reader = -1;
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(dir.file("reader.err")), "");
    EXPECT_FALSE(view->wrong);
    EXPECT_EQ(view->delivered, newest);
    EXPECT_GE(newest, view->committed);
    printf("%lld transactions, %lld records\n", static_cast<long long>(view->transactions.load()),
           static_cast<long long>(newest));
}
