// A call of the message-file library has given a code: what docs/message-file.md says to do is
// done, and no record is missing or there twice.
#include "msgfile/tmf.h"
#include "tests/msgfile/other_process.h"
#include "tests/remedies/remedy_fixture.h"

#include <csignal>
#include <memory>
#include <sys/resource.h>
#include <unistd.h>

using testing::HasSubstr;

class CodeRemedy : public RemedyRun {
  protected:
    void SetUp() override
    {
        RemedyRun::SetUp();
        path = dir.file("msg");
    }
    // What an open gives: 0, after which the file is closed again, or its code.
    static int opened(const std::string &file, int mode)
    {
        tmf_handle *h = tmf_fopen(file.c_str(), mode);
        return h == nullptr ? tmf_geterrno(nullptr) : tmf_fclose(h);
    }
    static int written(const std::string &file, const std::string &record)
    {
        tmf_handle *h = tmf_fopen(file.c_str(), 0);
        const int code = tmf_fwrite(h, record.data(), static_cast<int>(record.size()));
        (void)tmf_fclose(h);
        return code;
    }
    std::string records()
    {
        return sh("tmf read --keep msg").out;
    }

    std::string path;
};

TEST_F(CodeRemedy, OpensThatOthersOrArgumentsForbid)
{
    EXPECT_EQ(md_code_remedy(TMF_ENONAME), "name a file");
    EXPECT_EQ(opened("", 0), TMF_ENONAME);
    EXPECT_EQ(written(path, "one"), 0);
    EXPECT_EQ(md_code_remedy(TMF_ECOPYMODE), "open with 7; to remove, with 3");
    EXPECT_EQ(opened(path, TMF_MODE_COPY), TMF_ECOPYMODE);
    EXPECT_EQ(opened(path, 7), 0);
    for (const int mode : {1, 7, 3}) {
        tmf_handle *h = tmf_fopen(path.c_str(), mode);
        EXPECT_EQ(tmf_fremove(h, 0), mode == 3 ? 0 : TMF_ECOPYMODE) << mode;
        EXPECT_EQ(tmf_fclose(h), 0);
    }
    for (const int mode : {0, TMF_MODE_READ}) {
        const int present = mode == 0 ? TMF_EWRITER_PRESENT : TMF_EREADER_PRESENT;
        const int exclusive = mode == 0 ? TMF_EWRITER_EXCLUSIVE : TMF_EREADER_EXCLUSIVE;
        EXPECT_EQ(md_code_remedy(present), "wait until it has closed, or open shared");
        other_user user(path, mode);
        EXPECT_EQ(opened(path, mode + TMF_MODE_EXCLUSIVE), present);
        EXPECT_EQ(opened(path, mode), 0) << "shared";
        EXPECT_EQ(user.close(), 0);
        EXPECT_EQ(opened(path, mode + TMF_MODE_EXCLUSIVE), 0);
        EXPECT_EQ(md_code_remedy(exclusive), "wait until it has closed");
        other_user alone(path, mode + TMF_MODE_EXCLUSIVE);
        EXPECT_EQ(opened(path, mode), exclusive);
        EXPECT_EQ(alone.close(), 0);
        EXPECT_EQ(opened(path, mode), 0);
    }
    EXPECT_EQ(md_code_remedy(TMF_EMAXREADERS), "close some");
    std::vector<std::unique_ptr<other_user>> readers;
    for (int n = 0; n < 16; n++)
        readers.push_back(std::make_unique<other_user>(path, TMF_MODE_READ));
    EXPECT_EQ(opened(path, TMF_MODE_READ), TMF_EMAXREADERS);
    EXPECT_EQ(readers.back()->close(), 0);
    EXPECT_EQ(opened(path, TMF_MODE_READ), 0);
    readers.clear();
    EXPECT_THAT(md_code_remedy(TMF_EOPEN), HasSubstr("see the text"));
    EXPECT_EQ(opened(dir.file("there/msg"), 0), TMF_EOPEN);
    ASSERT_EQ(sh("mkdir there").status, 0);
    EXPECT_EQ(opened(dir.file("there/msg"), 0), 0);
    EXPECT_EQ(records(), "one\n");
}

TEST_F(CodeRemedy, ReadsThatEndWithoutARecord)
{
    EXPECT_EQ(md_code_remedy(TMF_ESIGNAL), "see what the signal wants; read again");
    EXPECT_EQ(md_code_remedy(TMF_ETIMEOUT), "read again");
    tmf_handle *reader = tmf_fopen(path.c_str(), TMF_MODE_READ);
    char record[16];
    (void)tmf_freadx(reader, record, sizeof record, TMF_READ_WAIT, 1);
    EXPECT_EQ(tmf_geterrno(reader), TMF_ETIMEOUT);
    EXPECT_EQ(written(path, "one"), 0);
    EXPECT_EQ(tmf_fread(reader, record, sizeof record, 0), 3);
    struct sigaction act = {};
    act.sa_handler = [](int) {};
    sigaction(SIGUSR1, &act, nullptr);
    const pid_t reading = getpid();
    const pid_t sender = fork();
    if (sender == 0) {
        while (kill(reading, SIGUSR1) == 0) // until it is in its wait
            usleep(20000);
        _exit(0);
    }
    EXPECT_EQ(tmf_fread(reader, record, sizeof record, TMF_READ_WAIT | TMF_READ_SIGNAL),
              TMF_ESIGNAL);
    kill(sender, SIGKILL);
    wait_program(sender);
    EXPECT_EQ(written(path, "two"), 0);
    EXPECT_EQ(tmf_fread(reader, record, sizeof record, TMF_READ_WAIT | TMF_READ_SIGNAL), 3);
    EXPECT_EQ(std::string(record, 3), "two");
    EXPECT_EQ(tmf_fclose(reader), 0);
    EXPECT_EQ(records(), "");
}

TEST_F(CodeRemedy, WritesWithoutRoomOrOfTooLongARecord)
{
    EXPECT_EQ(md_code_remedy(TMF_EWRITE_DATA_EOF), "make room, write it again");
    struct sigaction ignored = {};
    ignored.sa_handler = SIG_IGN;
    struct sigaction before = {};
    sigaction(SIGXFSZ, &ignored, &before);
    tmf_handle *h = tmf_fopen(path.c_str(), 0);
    EXPECT_EQ(tmf_fwrite(h, "one", 3), 0);
    const std::string long_one(8000, 'x');
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit little = {.rlim_cur = 8192, .rlim_max = limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &little), 0);
    EXPECT_EQ(tmf_fwrite(h, long_one.data(), 8000), TMF_EWRITE_DATA_EOF);
    const rlimit least = {.rlim_cur = 4352, .rlim_max = limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &least), 0);
    EXPECT_EQ(md_code_remedy(TMF_EWRITE_DATA), "make room, write it again");
    EXPECT_EQ(tmf_fwrite(h, long_one.data(), 8000), TMF_EWRITE_DATA);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(tmf_fwrite(h, long_one.data(), 8000), 0);
    EXPECT_EQ(md_code_remedy(TMF_ERECORD_SIZE), "cut the record into several");
    const std::string longest(TMF_MAX_DATA + 1, 'y');
    EXPECT_EQ(tmf_fwrite(h, longest.data(), TMF_MAX_DATA + 1), TMF_ERECORD_SIZE);
    EXPECT_EQ(tmf_fwrite(h, longest.data(), TMF_MAX_DATA), 0);
    EXPECT_EQ(tmf_fwrite(h, longest.data(), 1), 0);
    EXPECT_EQ(tmf_fclose(h), 0);
    sigaction(SIGXFSZ, &before, nullptr);
    EXPECT_EQ(records(), "one\n" + long_one + "\n" + longest.substr(1) + "\ny\n");
}

TEST_F(CodeRemedy, DamagedFilesAreRepairedAndForeignOnesGetAnotherName)
{
    EXPECT_EQ(md_code_remedy(TMF_EREAD_DATA_EOF), "the file is damaged");
    EXPECT_EQ(md_code_remedy(TMF_ESEEK_DATA_EOF), "the file is damaged");
    EXPECT_THAT(md_section(md_page("docs/message-file.md"), "Errors"),
                HasSubstr("Damaged file: `tmf repair` keeps a copy, cuts it back"));
    for (const char *record : {"one", "two", "three"})
        EXPECT_EQ(written(path, record), 0);
    std::string bytes = read_file(path);
    bytes.replace(bytes.size() - 13, 2, std::string(2, '\0')); // the length of "three"
    write_file(path, bytes);
    tmf_handle *h = tmf_fopen(path.c_str(), TMF_MODE_READ);
    char record[16];
    EXPECT_EQ(tmf_fread(h, record, sizeof record, TMF_READ_KEEP), 3);
    EXPECT_EQ(tmf_fclose(h), 0);
    EXPECT_THAT(sh("tmf read --keep msg").err, HasSubstr("EOF reading data."));
    EXPECT_EQ(sh("tmf repair msg").status, 0);
    EXPECT_EQ(written(path, "four"), 0);
    EXPECT_EQ(records(), "one\ntwo\nfour\n");
    EXPECT_THAT(md_code_remedy(TMF_ENOTMSG), HasSubstr("see the name; "));
    write_file(dir.file("text"), std::string(5000, 't'));
    EXPECT_EQ(opened(dir.file("text"), 0), TMF_ENOTMSG);
    EXPECT_EQ(read_file(dir.file("text")), std::string(5000, 't'));
    EXPECT_EQ(opened(path, 0), 0);
    EXPECT_EQ(md_code_remedy(TMF_EINFO), "items are 1 to 5");
    h = tmf_fopen(path.c_str(), 0);
    int value = 0;
    EXPECT_EQ(tmf_getinfo(h, 6, &value, 0), TMF_EINFO);
    EXPECT_EQ(tmf_getinfo(h, TMF_INFO_RECORDS, &value, 0), 0);
    EXPECT_EQ(value, 3);
    EXPECT_EQ(tmf_fclose(h), 0);
}

// A size that no more may be written of, for as long as its block.
class size_limit {
  public:
    explicit size_limit(rlim_t bytes)
    {
        struct sigaction ignored = {};
        ignored.sa_handler = SIG_IGN;
        sigaction(SIGXFSZ, &ignored, &before_);
        getrlimit(RLIMIT_FSIZE, &limit_);
        const rlimit little = {.rlim_cur = bytes, .rlim_max = limit_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &little);
    }
    ~size_limit()
    {
        setrlimit(RLIMIT_FSIZE, &limit_);
        sigaction(SIGXFSZ, &before_, nullptr);
    }
    size_limit(const size_limit &) = delete;
    size_limit &operator=(const size_limit &) = delete;

  private:
    struct sigaction before_ = {};
    rlimit limit_ = {};
};

TEST_F(CodeRemedy, AFileThatCouldNotBeMadeIsOpenedAgain)
{
    const std::pair<rlim_t, int> rows[] = {{0, TMF_EINIT_WRITE},
                                           {100, TMF_EINIT_WRITE_EOF},
                                           {256, TMF_EWRITE_LOCKS},
                                           {300, TMF_EWRITE_LOCKS_EOF}};
    for (const auto &[bytes, code] : rows) {
        SCOPED_TRACE(bytes);
        EXPECT_EQ(md_code_remedy(code), "make room, open again");
        ASSERT_EQ(sh("rm -f msg").status, 0);
        {
            const size_limit limit(bytes);
            EXPECT_EQ(opened(path, 0), code);
        }
        EXPECT_EQ(written(path, "one"), 0);
        EXPECT_EQ(written(path, "two"), 0);
        EXPECT_EQ(records(), "one\ntwo\n");
        expect_good("tmf verify msg");
    }
    EXPECT_EQ(md_code_remedy(TMF_ESEEK_LOCKS_EOF),
              "the file is no ordinary file: name one that is");
    EXPECT_EQ(opened("/dev/null", 0), TMF_ESEEK_LOCKS_EOF);
    EXPECT_EQ(opened(dir.file("ordinary"), 0), 0);
}

// What is left of a file that somebody has cut is no file; its users have to let go of it.
TEST_F(CodeRemedy, AFileThatSomebodyHasCutIsRestoredOrBegunAnew)
{
    EXPECT_THAT(md_code_remedy(TMF_EREAD_COMMON_EOF),
                HasSubstr("restore it from a copy, or remove it, and the next open makes a new"));
    for (const bool restored : {true, false}) {
        SCOPED_TRACE(restored);
        ASSERT_EQ(sh("rm -f msg copy").status, 0);
        EXPECT_EQ(written(path, "one"), 0);
        ASSERT_EQ(sh("cp -p msg copy").status, 0);
        tmf_handle *writer = tmf_fopen(path.c_str(), 0);
        ASSERT_EQ(truncate(path.c_str(), 255), 0);
        EXPECT_EQ(tmf_fwrite(writer, "two", 3), TMF_EREAD_COMMON_EOF);
        EXPECT_EQ(tmf_fclose(writer), TMF_EREAD_COMMON_EOF);
        expect_error("tmf repair msg", "EOF reading common area.");
        ASSERT_EQ(sh(restored ? "cp -p copy msg" : "rm msg").status, 0);
        EXPECT_EQ(written(path, "two"), 0);
        EXPECT_EQ(records(), restored ? "one\ntwo\n" : "two\n");
    }
}
