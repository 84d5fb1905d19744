// The file layer under a capture file: text files, message files, error details.
#include "capture/ebmf.h"

#include "capture/capinfo.h"
#include "tests/support/captured.h"
#include "tests/support/tempdir.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

using namespace std::string_literals;

static int write_text(ebmf *file, const std::string &text)
{
    std::string buffer = text + "##";
    return ebmf_fwrite(file, buffer.data(), static_cast<int32_t>(text.size()));
}

// While it lives no file grows past the limit, and a write that would fails.
class file_size_limit {
  public:
    explicit file_size_limit(rlim_t bytes) : handler_(signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &old_);
        const rlimit limit = {bytes, old_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~file_size_limit()
    {
        setrlimit(RLIMIT_FSIZE, &old_);
        signal(SIGXFSZ, handler_);
    }
    file_size_limit(const file_size_limit &) = delete;
    file_size_limit &operator=(const file_size_limit &) = delete;

  private:
    rlimit old_ = {};
    void (*handler_)(int);
};

// A signal that comes while a write waits for room in a pipe; the second one makes room.
static int interrupted_pipe = -1;
static volatile sig_atomic_t interruptions = 0;

static void interrupt_write(int)
{
    char bytes[4096];
    interruptions = interruptions + 1;
    while (interruptions > 1 && read(interrupted_pipe, bytes, sizeof bytes) > 0) {
    }
}

TEST(Ebmf, InterruptedTextWriteGoesOn)
{
    const tempdir dir;
    ASSERT_EQ(0, mkfifo(dir.file("f").c_str(), 0600));
    interrupted_pipe = open(dir.file("f").c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(interrupted_pipe, 0);
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, ASCII_ON);
    ASSERT_NE(nullptr, file);
    const int out = fileno(file->textfp);
    ASSERT_EQ(0, fcntl(out, F_SETFL, O_NONBLOCK));
    const std::string filling(4096, '.');
    while (write(out, filling.data(), filling.size()) > 0) {
    }
    ASSERT_EQ(0, fcntl(out, F_SETFL, 0));

    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = interrupt_write; // without SA_RESTART
    sigaction(SIGALRM, &action, &before);
    interruptions = 0;
    const itimerval often = {{0, 10000}, {0, 10000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const int result = write_text(file, "record");
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(0, result);
    EXPECT_GE(interruptions, 2);
    EXPECT_EQ(0, ebmf_fclose(file));
    close(interrupted_pipe);
}

TEST(Ebmf, TextFileIsCreatedAndClosed)
{
    const tempdir dir;
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, ASCII_ON | ASCII_BWFMT);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(9, file->is_text);
    EXPECT_EQ(nullptr, file->tmfh);
    EXPECT_EQ(0, file->os_errno);
    int32_t number = -1;
    EXPECT_EQ(0, ebmf_getfnum(file, &number));
    EXPECT_EQ(fileno(file->textfp), number);
    EXPECT_EQ(0, ebmf_fclose(file));
    EXPECT_TRUE(std::filesystem::exists(dir.file("f")));
    EXPECT_EQ("", read_file(dir.file("f")));
}

TEST(Ebmf, ExistingTextFileIsEmptied)
{
    const tempdir dir;
    write_file(dir.file("f"), "old content\n");
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, ASCII_ON);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ("", read_file(dir.file("f")));
    ebmf_fclose(file);
}

TEST(Ebmf, RecordBecomesALineAtOnce)
{
    const tempdir dir;
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, ASCII_ON);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(0, write_text(file, "first"));
    EXPECT_EQ("first\n", read_file(dir.file("f"))) << "before it is closed";
    EXPECT_EQ(0, write_text(file, ""));
    EXPECT_EQ(0, write_text(file, std::string(100000, 'x')));
    EXPECT_EQ("first\n\n" + std::string(100000, 'x') + "\n", read_file(dir.file("f")));
    EXPECT_EQ(0, ebmf_fclose(file));
}

TEST(Ebmf, LineEndAndNulGoBehindTheRecord)
{
    const tempdir dir;
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, ASCII_ON);
    ASSERT_NE(nullptr, file);
    char buffer[] = "abcdef";
    EXPECT_EQ(0, ebmf_fwrite(file, buffer, 3));
    EXPECT_EQ("abc\n\0f"s, std::string(buffer, 6));
    EXPECT_EQ("abc\n", read_file(dir.file("f")));
    ebmf_fclose(file);
}

TEST(Ebmf, LineEndsAtANul)
{
    const tempdir dir;
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, ASCII_ON | ASCII_DIRTY);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(0, write_text(file, "ab\0cd"s));
    EXPECT_EQ(0, write_text(file, "ef"));
    EXPECT_EQ("abef\n", read_file(dir.file("f")));
    ebmf_fclose(file);
}

TEST(Ebmf, FailedOpenKeepsItsErrorForTheMessage)
{
    const tempdir dir;
    EXPECT_EQ(nullptr, ebmf_fopen(dir.file("no/f").c_str(), 0, ASCII_ON));
    EXPECT_EQ(ENOENT, fil_open_os_errno);
    captured printed =
        capture([] { EXPECT_EQ(-1, set_error_emf(nullptr, "Trouble with %s", "f")); });
    EXPECT_EQ("CAPERR: No such file or directory\nTrouble with f\n", printed.err);
    EXPECT_EQ("", printed.out);
    EXPECT_EQ(0, fil_open_os_errno);
    printed = capture([] { set_error_emf(nullptr, "Again"); });
    EXPECT_EQ("CAPERR: Success\nAgain\n", printed.err);
}

TEST(Ebmf, EveryOpenClearsTheKeptError)
{
    const tempdir dir;
    EXPECT_EQ(nullptr, ebmf_fopen(dir.path().c_str(), 0, ASCII_ON));
    EXPECT_EQ(EISDIR, fil_open_os_errno);
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, ASCII_ON);
    EXPECT_EQ(0, fil_open_os_errno);
    ebmf_fclose(file);
}

TEST(Ebmf, MessageFileThatCannotBeOpenedIsNoTextFileError)
{
    const tempdir dir;
    fil_open_os_errno = ENOSPC;
    EXPECT_EQ(nullptr, ebmf_fopen(dir.file("no/f").c_str(), 0, 0));
    EXPECT_EQ(0, fil_open_os_errno);
    captured printed =
        capture([] { EXPECT_EQ(-1, set_error_mf(nullptr, "Trouble with %s", "f")); });
    EXPECT_EQ("CAPERR: Error opening file: No such file or directory\nTrouble with f\n",
              printed.err);
    printed = capture([] { set_error_mf(nullptr, "Again"); });
    EXPECT_EQ("CAPERR: Error opening file: \nAgain\n", printed.err)
        << "the system's text is told once";
}

TEST(Ebmf, MessageFileTakesRecordsAndTellsItsDescriptor)
{
    const tempdir dir;
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, 0);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(0, file->is_text);
    EXPECT_EQ(nullptr, file->textfp);
    int32_t number = -1;
    EXPECT_EQ(0, ebmf_getfnum(file, &number));
    EXPECT_EQ(0, fcntl(number, F_GETFL) & O_WRONLY);
    char record[] = "abcdef";
    EXPECT_EQ(0, ebmf_fwrite(file, record, 3));
    EXPECT_STREQ("abcdef", record) << "nothing goes behind a message record";
    EXPECT_EQ(std::string("\0\x09\0\x11"
                          "abc"
                          "\0\x09\xFF\xFF",
                          11),
              read_file(dir.file("f")).substr(4352));
    EXPECT_EQ(0, ebmf_fclose(file));
}

TEST(Ebmf, MessageFileErrorsShowTheLibrarysText)
{
    const tempdir dir;
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, 0);
    ASSERT_NE(nullptr, file);
    char record[] = "";
    EXPECT_EQ(TMF_ERECORD_SIZE, ebmf_fwrite(file, record, 0));
    captured printed = capture([&] { EXPECT_EQ(-1, set_error_emf(file, "Trouble with %s", "f")); });
    EXPECT_EQ("CAPERR: Invalid record size.\nTrouble with f\n", printed.err);
    printed = capture([&] { EXPECT_EQ(-1, set_error_mf(file->tmfh, "%d", 7)); });
    EXPECT_EQ("CAPERR: Invalid record size.\n7\n", printed.err);
    int32_t number = -1;
    ASSERT_EQ(0, ebmf_getfnum(file, &number));
    close(number);
    EXPECT_NE(0, ebmf_getfnum(file, &number));
    EXPECT_EQ(TMF_EHANDLE, ebmf_fclose(file));
}

TEST(Ebmf, FailedWriteReadsAsErrorZero)
{
    ebmf *file = ebmf_fopen("/dev/full", 0, ASCII_ON);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(1, write_text(file, "record"));
    const captured printed = capture([&] { set_error_emf(file, "Error writing %s", "it"); });
    EXPECT_EQ("CAPERR: Success\nError writing it\n", printed.err);
    ebmf_fclose(file);
}

TEST(Ebmf, LongMessagesAreCut)
{
    const std::string text(2000, 'x');
    const captured printed = capture([&] { set_error_emf(nullptr, "%s", text.c_str()); });
    EXPECT_EQ("CAPERR: Success\n" + std::string(1023, 'x') + "\n", printed.err);
}

TEST(Ebmf, FailedWriteLeavesNoHalfLine)
{
    const tempdir dir;
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, ASCII_ON);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(0, write_text(file, "first"));
    {
        const file_size_limit limit(10);
        EXPECT_NE(0, write_text(file, "second record"));
        EXPECT_EQ("first\n", read_file(dir.file("f")));
        EXPECT_EQ(0, write_text(file, "fit")); // to the tenth byte
        EXPECT_NE(0, write_text(file, ""));
    }
    EXPECT_EQ(0, write_text(file, "last"));
    EXPECT_EQ("first\nfit\nlast\n", read_file(dir.file("f")));
    EXPECT_EQ(0, ebmf_fclose(file));
}

TEST(Ebmf, CloseFailureIsReturned)
{
    const tempdir dir;
    ebmf *file = ebmf_fopen(dir.file("f").c_str(), 0, ASCII_ON);
    ASSERT_NE(nullptr, file);
    close(fileno(file->textfp));
    EXPECT_NE(0, ebmf_fclose(file));
}
