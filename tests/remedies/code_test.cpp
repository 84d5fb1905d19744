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

// The last cell of the row of a code.
static std::string remedy_of(int code)
{
    for (const auto &row : md_find_table(md_page("docs/message-file.md"), "code").rows) {
        if ((row[0] + ",").find(std::to_string(code) + ",") != std::string::npos)
            return row.back();
    }
    throw std::runtime_error("no row of " + std::to_string(code));
}

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
    EXPECT_EQ(remedy_of(TMF_ENONAME), "name a file");
    EXPECT_EQ(opened("", 0), TMF_ENONAME);
    EXPECT_EQ(written(path, "one"), 0);
    EXPECT_EQ(remedy_of(TMF_ECOPYMODE), "open with 7");
    EXPECT_EQ(opened(path, TMF_MODE_COPY), TMF_ECOPYMODE);
    EXPECT_EQ(opened(path, 7), 0);
    for (const int mode : {0, TMF_MODE_READ}) {
        const int present = mode == 0 ? TMF_EWRITER_PRESENT : TMF_EREADER_PRESENT;
        const int exclusive = mode == 0 ? TMF_EWRITER_EXCLUSIVE : TMF_EREADER_EXCLUSIVE;
        EXPECT_EQ(remedy_of(present), "wait until it has closed, or open shared");
        other_user user(path, mode);
        EXPECT_EQ(opened(path, mode + TMF_MODE_EXCLUSIVE), present);
        EXPECT_EQ(opened(path, mode), 0) << "shared";
        EXPECT_EQ(user.close(), 0);
        EXPECT_EQ(opened(path, mode + TMF_MODE_EXCLUSIVE), 0);
        EXPECT_EQ(remedy_of(exclusive), "wait until it has closed");
        other_user alone(path, mode + TMF_MODE_EXCLUSIVE);
        EXPECT_EQ(opened(path, mode), exclusive);
        EXPECT_EQ(alone.close(), 0);
        EXPECT_EQ(opened(path, mode), 0);
    }
    EXPECT_EQ(remedy_of(TMF_EMAXREADERS), "close some");
    std::vector<std::unique_ptr<other_user>> readers;
    for (int n = 0; n < 16; n++)
        readers.push_back(std::make_unique<other_user>(path, TMF_MODE_READ));
    EXPECT_EQ(opened(path, TMF_MODE_READ), TMF_EMAXREADERS);
    EXPECT_EQ(readers.back()->close(), 0);
    EXPECT_EQ(opened(path, TMF_MODE_READ), 0);
    readers.clear();
    EXPECT_THAT(remedy_of(TMF_EOPEN), HasSubstr("see the text"));
    EXPECT_EQ(opened(dir.file("there/msg"), 0), TMF_EOPEN);
    ASSERT_EQ(sh("mkdir there").status, 0);
    EXPECT_EQ(opened(dir.file("there/msg"), 0), 0);
    EXPECT_EQ(records(), "one\n");
}

TEST_F(CodeRemedy, ReadsThatEndWithoutARecord)
{
    EXPECT_EQ(remedy_of(TMF_ESIGNAL), "see what the signal wants; read again");
    EXPECT_EQ(remedy_of(TMF_ETIMEOUT), "read again");
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
    EXPECT_EQ(remedy_of(TMF_EWRITE_DATA_EOF), "make room, write it again");
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
    EXPECT_EQ(remedy_of(TMF_EWRITE_DATA), "make room, write it again");
    EXPECT_EQ(tmf_fwrite(h, long_one.data(), 8000), TMF_EWRITE_DATA);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(tmf_fwrite(h, long_one.data(), 8000), 0);
    EXPECT_EQ(remedy_of(TMF_ERECORD_SIZE), "cut the record into several");
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
    EXPECT_EQ(remedy_of(TMF_EREAD_DATA_EOF), "the file is damaged");
    EXPECT_EQ(remedy_of(TMF_ESEEK_DATA_EOF), "the file is damaged");
    EXPECT_THAT(md_section(md_page("docs/message-file.md"), "Errors"),
                HasSubstr("Damaged file: `tmf repair` keeps a copy and cuts it back"));
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
    EXPECT_EQ(remedy_of(TMF_ENOTMSG), "see the name");
    write_file(dir.file("text"), std::string(5000, 't'));
    EXPECT_EQ(opened(dir.file("text"), 0), TMF_ENOTMSG);
    EXPECT_EQ(read_file(dir.file("text")), std::string(5000, 't'));
    EXPECT_EQ(opened(path, 0), 0);
    EXPECT_EQ(remedy_of(TMF_EINFO), "items are 1 to 5");
    h = tmf_fopen(path.c_str(), 0);
    int value = 0;
    EXPECT_EQ(tmf_getinfo(h, 6, &value, 0), TMF_EINFO);
    EXPECT_EQ(tmf_getinfo(h, TMF_INFO_RECORDS, &value, 0), 0);
    EXPECT_EQ(value, 3);
    EXPECT_EQ(tmf_fclose(h), 0);
}
