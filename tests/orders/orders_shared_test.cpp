// Several processes at one message capture file: two runs of Kestro fill it while
// two readers empty it.
#include "msgfile/tmf.h"
#include "tests/orders/orders_fixture.h"

#include <cstdio>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

// Takes records until no writer is left and puts them into a file, each behind its
// length in five digits.  A reader that the others left no record waits for its first one without
// end: it looks whether PATH.over is there.  Returns the exit status of the reader's process.
static int read_all_records(const std::string &path, const std::string &taken)
{
    tmf_handle *reader = tmf_fopen(path.c_str(), TMF_MODE_READ);
    FILE *to = fopen(taken.c_str(), "w");
    if (reader == nullptr || to == nullptr)
        return 1;
    std::string buffer(TMF_MAX_DATA, '\0');
    int n = 0;
    const auto take = [&] {
        const bool over = access((path + ".over").c_str(), F_OK) == 0;
        n = tmf_freadx(reader, buffer.data(), TMF_MAX_DATA, TMF_READ_LIMIT, 2);
        if (n == TMF_ETIMEOUT && over)
            n = 0;
        return n > 0 || n == TMF_ETIMEOUT;
    };
    while (take()) {
        if (n == TMF_ETIMEOUT)
            continue;
        fprintf(to, "%05d", n);
        fwrite(buffer.data(), 1, static_cast<size_t>(n), to);
    }
    return n == 0 && fclose(to) == 0 && tmf_fclose(reader) == 0 ? 0 : 1;
}

static pid_t start_reader(const std::string &path, const std::string &taken)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(read_all_records(path, taken));
    return pid;
}

static std::vector<std::string> records_taken(const std::string &taken)
{
    const std::string bytes = read_file(taken);
    std::vector<std::string> records;
    for (size_t at = 0; at + 5 <= bytes.size();) {
        const size_t length = std::stoul(bytes.substr(at, 5));
        records.push_back(bytes.substr(at + 5, length));
        at += 5 + length;
    }
    return records;
}

TEST_F(OrdersTest, TwoWritersAndTwoReadersShareAMessageFile)
{
    const std::string path = dir.file("shared.msg");
    const std::vector<std::string> taken = {dir.file("taken1"), dir.file("taken2")};
    const pid_t readers[] = {start_reader(path, taken[0]), start_reader(path, taken[1])};
    // While the test itself is a writer the readers wait for more.
    tmf_handle *open_end = tmf_fopen(path.c_str(), 0);
    ASSERT_NE(open_end, nullptr);
    EXPECT_TRUE(poll_until([&] {
        int32_t waiting = 0;
        return tmf_getinfo(open_end, TMF_INFO_READERS, &waiting, 0) == 0 && waiting == 2;
    }));

    run_setup options;
    options.directory = dir.path();
    const auto start = [&](const std::string &dsets, const std::string &status) {
        return start_program({kestro, "-synconly", "-stat", status, "-dset", dsets, "-exthdr",
                              "-yyyy", "-recnum", "shared.msg"},
                             options, "", dir.file(status + ".err"));
    };
    const pid_t writers[] = {start("sales:", "sales"), start("depot:", "depot")};
    for (const pid_t writer : writers)
        EXPECT_EQ(wait_program(writer), 0);
    EXPECT_EQ(tmf_fclose(open_end), 0);
    write_file(path + ".over", "");
    for (const pid_t reader : readers) {
        int status = -1;
        EXPECT_EQ(waitpid(reader, &status, 0), reader);
        EXPECT_EQ(status, 0);
    }

    std::map<std::string, std::string> by_number; // the log's record number
    for (const std::string &file : taken) {
        std::map<std::string, std::string> last; // sequence number by database
        for (const std::string &record : records_taken(file)) {
            ASSERT_GE(record.size(), 141U);
            EXPECT_TRUE(by_number.emplace(record.substr(126, 15), record).second)
                << "taken twice: " << record.substr(126, 15);
            std::string &before = last[record.substr(6, 24)];
            EXPECT_LT(before, record.substr(0, 6)) << "one writer's records keep their order";
            before = record.substr(0, 6);
        }
    }
    EXPECT_EQ(by_number.size(), static_cast<size_t>(CHANGES));
    replay state = open_replay();
    for (const auto &[number, record] : by_number)
        replay_message(state, record);
    compare(state);
}
