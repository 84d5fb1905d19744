// tmf info on files whose every byte is known, and on live users.
#include "tests/support/markdown.h"
#include "tests/tools/tmf/tmf_fixture.h"

#include <csignal>
#include <regex>
#include <set>

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class TmfInfo : public TmfTool {
  protected:
    const std::string golden = golden_bytes("message_file_small.hex");

    // The golden file in text; order and users are given.
    std::string text(const std::string &order, const std::string &rest) const
    {
        return path + "\n    order    " + order +
               "\n"
               "    stamp    6553f100, 2023-11-14 22:13:20 UTC\n"
               "    records  2, from 4352 to 4394\n"
               "    length   4394 used, 4396 allocated, 4394 at most\n" +
               rest;
    }
};

TEST_F(TmfInfo, ShowsAFileWhoseWriterIsGone)
{
    write_file(path, golden);
    const run_result result = tmf({"info", path});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, text("little-endian", "    readers  0 of 16\n"
                                                "    writers  1 of 1008\n"
                                                "        slot 0: process 4711, lock not held: "
                                                "gone\n"));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(bytes(), golden);
}

TEST_F(TmfInfo, ShowsAFileOfTheOtherByteOrder)
{
    std::string file = golden;
    turn_around(file);
    std::reverse(file.begin() + 320, file.begin() + 324);
    write_file(path, file);
    const run_result result = tmf({"info", path});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, text("big-endian, not this host's",
                               "    readers  0 of 16\n"
                               "    writers  1 of 1008\n"
                               "        slot 0: process 4711, lock not held: gone\n"));
    EXPECT_EQ(bytes(), file);
}

TEST_F(TmfInfo, ShowsExclusiveUsersAndTheWaitList)
{
    std::string file = golden;
    file[68] = 2;                                        // readers
    file[72] = 6;                                        // both kinds exclusive
    file.replace(80, 4, std::string("\x0a\0\0\x07", 4)); // wake-ups to 10.0.0.7
    file.replace(92 + 2 * 9, 2, "\xd0\xff");             // port of slot 9
    file.replace(124, 2, "\x01\x42");                    // slots 0, 9 and 14 wait
    file.replace(126, 2, "\x01\x02");                    // slots 0 and 9 are taken
    put_number<int32_t>(file, 256, 99);
    put_number<int32_t>(file, 256 + 4 * 9, 0);
    write_file(path, file);
    const run_result result = tmf({"info", path});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              text("little-endian",
                   "    readers  2 of 16, exclusive\n"
                   "        slot 0: process 99, lock not held: gone, in the wait list at "
                   "10.0.0.7:53248\n"
                   "        slot 9: no process id, lock not held: gone, in the wait list at "
                   "10.0.0.7:53503\n"
                   "    writers  1 of 1008, exclusive\n"
                   "        slot 0: process 4711, lock not held: gone\n"
                   "    wait list: slot 14, which no reader has\n"));
}

// Names of JSON members, those inside of others too.
static std::set<std::string> members_of(const std::string &json)
{
    static const std::regex member("\"([a-z_]+)\":");
    std::set<std::string> names;
    for (std::sregex_iterator at(json.begin(), json.end(), member), end; at != end; ++at)
        names.insert((*at)[1]);
    return names;
}

TEST_F(TmfInfo, MembersAreThoseOfThePage)
{
    std::string file = golden;
    file[68] = 1; // a reader, which has more members than the writer
    file[126] = 1;
    put_number<int32_t>(file, 256, 99);
    write_file(path, file);
    std::set<std::string> shown;
    for (const auto &row : md_find_table(md_page("docs/tmf-tool.md"), "member").rows) {
        const std::vector<std::string> names = md_code(row[0]);
        shown.insert(names.begin(), names.end());
        if (names.front() == "readers")
            for (const std::string &inside : md_code(row[1]))
                shown.insert(inside);
    }
    EXPECT_EQ(shown, members_of(tmf({"info", "--json", path}).out));
}

TEST_F(TmfInfo, ShowsUsersThatHoldTheirLocks)
{
    make();
    other_user writer(path, TMF_MODE_EXCLUSIVE);
    other_user reader(path, TMF_MODE_READ);
    const pid_t waiting = start({"read", "--shared", "--follow", path});
    ASSERT_TRUE(poll_until([&] { return (bytes()[124] & 2) != 0; }));
    const run_result result = tmf({"info", path});
    EXPECT_EQ(result.status, 0);
    const auto process = [](pid_t pid) {
        return "process " + std::to_string(pid) + ", holds its lock";
    };
    EXPECT_THAT(result.out,
                HasSubstr("    readers  2 of 16\n        slot 0: " + process(reader.pid()) +
                          "\n        slot 1: " + process(waiting) +
                          ", in the wait list at 127.0.0.1:"));
    EXPECT_THAT(result.out, HasSubstr("    writers  1 of 1008, exclusive\n        slot 0: " +
                                      process(writer.pid()) + "\n"));
    // Nobody lost a lock or a place by being looked at.
    EXPECT_EQ(holder_of(path, 256, 4), reader.pid());
    EXPECT_EQ(holder_of(path, 260, 4), waiting);
    EXPECT_EQ(holder_of(path, 320, 4), writer.pid());
    EXPECT_EQ(tmf({"info", path}).out, result.out);
    kill(waiting, SIGTERM);
    EXPECT_EQ(finish(waiting), 143);
}

TEST_F(TmfInfo, ShowsAnotherHolderOfALock)
{
    write_file(path, golden);
    const lock_holder slot(path, 320, 4);
    const lock_holder common(path, 0, 256);
    EXPECT_EQ(tmf({"info", path}).out,
              text("little-endian", "    readers  0 of 16\n"
                                    "    writers  1 of 1008\n"
                                    "        slot 0: process 4711, lock held by process " +
                                        std::to_string(slot.pid()) +
                                        "\n"
                                        "    locked at this moment by process " +
                                        std::to_string(common.pid()) + "\n"));
}

TEST_F(TmfInfo, ReadsAFileThatItMayNotWrite)
{
    write_file(path, golden);
    chmod(path.c_str(), 0400);
    EXPECT_EQ(tmf({"info", path}).status, 0);
    struct stat before;
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    EXPECT_EQ(tmf({"info", "--json", path}).status, 0);
    struct stat after;
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
}

TEST_F(TmfInfo, ShowsStampsThatAreNone)
{
    const struct {
        std::string stamp;
        std::string text;
    } table[] = {
        {std::string(8, '\0'), "none, nobody has opened the file yet"},
        {"00000000", "00000000, 1970-01-01 00:00:00 UTC"},
        {"ffffffff", "ffffffff, 2106-02-07 06:28:15 UTC"},
        {"6553F100", "not a time, 0x3635353346313030"},
        {"6553\n\xff\x1b[", "not a time, 0x363535330aff1b5b"},
    };
    for (const auto &row : table) {
        std::string file = golden;
        file.replace(84, 8, row.stamp);
        write_file(path, file);
        EXPECT_THAT(tmf({"info", path}).out, HasSubstr("    stamp    " + row.text + "\n"));
        EXPECT_THAT(tmf({"info", "--json", path}).out,
                    HasSubstr(row.text.find("UTC") == std::string::npos
                                  ? "\"stamp\":null,\"stamp_time\":null"
                                  : "\"stamp\":\"" + row.stamp + "\",\"stamp_time\":\""));
    }
}

TEST_F(TmfInfo, WhatIsNoMessageFileEndsWithStatus1)
{
    const auto cut = [&](size_t length) { return golden.substr(0, length); };
    std::string mark = golden;
    mark[0] = '\x12';
    std::string version = golden;
    version[74] = 3;
    const struct {
        std::string bytes;
        std::string text;
    } table[] = {
        {"", "File is not a message file."},
        {"x", "File is not a message file."},
        {std::string(5000, '\xff'), "File is not a message file."},
        {cut(7), "File is not a message file."},
        {cut(8), "Records are in an unsupported format."},
        {cut(75), "EOF reading common area."},
        {cut(255), "EOF reading common area."},
        {mark, "Message file created on an incompatible system."},
        {version, "Records are in an unsupported format."},
    };
    for (const auto &row : table) {
        write_file(path, row.bytes);
        const run_result result = tmf({"info", path});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, complaint(row.text));
        EXPECT_EQ(bytes(), row.bytes);
    }
}

TEST_F(TmfInfo, WhatIsNoFileEndsWithStatus1)
{
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const struct {
        std::string name;
        std::string text;
    } table[] = {
        {path, "No such file or directory"},
        {dir.path(), "File is not a message file."},
        {fifo, "File is not a message file."},
        {"/dev/null", "File is not a message file."},
    };
    for (const auto &row : table) {
        const run_result result = tmf({"info", row.name});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "tmf: " + row.name + ": " + row.text + "\n");
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(TmfInfo, SaysWhereAFileContradictsItself)
{
    const struct {
        const char *name;
        std::function<void(std::string &)> damage;
        std::string text;
    } table[] = {
        {"cut in the records", [](std::string &file) { file.resize(4393); },
         "cut off: the records end at 4394, the file at 4393"},
        {"cut in the lock area", [](std::string &file) { file.resize(256); },
         "cut off: the records end at 4394, the file at 256"},
        {"oldest record", [](std::string &file) { put_number<int32_t>(file, 36, 4395); },
         "the oldest record at 4395 is outside the records from 4352 to 4394"},
        {"before the records", [](std::string &file) { put_number<int32_t>(file, 36, -1); },
         "the oldest record at -1 is outside the records from 4352 to 4394"},
        {"no records", [](std::string &file) { put_number<int32_t>(file, 16, 0); },
         "0 records cannot be 42 bytes"},
        {"too many records", [](std::string &file) { put_number<int32_t>(file, 16, 8); },
         "8 records cannot be 42 bytes"},
        {"less than none", [](std::string &file) { put_number<int32_t>(file, 16, -2); },
         "-2 records cannot be 42 bytes"},
        {"writers", [](std::string &file) { file[70] = 3; },
         "3 writers are counted, 1 have a slot"},
        {"readers", [](std::string &file) { file[126] = 3; },
         "0 readers are counted, 2 have a slot"},
        {"lock area", [](std::string &file) { put_number<int32_t>(file, 52, 0x7fffffff); },
         "slots of writers are outside the lock area"},
        {"lock area among the records",
         [](std::string &file) { put_number<int32_t>(file, 52, 4292); },
         "slots of writers are outside the lock area"},
        {"slot size", [](std::string &file) { file[76] = 0; },
         "slots of writers are outside the lock area"},
    };
    for (const auto &row : table) {
        SCOPED_TRACE(row.name);
        std::string file = golden;
        row.damage(file);
        write_file(path, file);
        const run_result result = tmf({"info", path});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.out, StartsWith(path + "\n    order "));
        EXPECT_THAT(result.out, HasSubstr("    damaged: " + row.text + "\n"));
        EXPECT_THAT(tmf({"info", "--json", path}).out,
                    HasSubstr("\"damage\":[\"" + row.text + "\"]"));
        EXPECT_EQ(bytes(), file);
    }
}

TEST_F(TmfInfo, OtherOrderDoesNotHideAnUnknownFormat)
{
    std::string file = golden;
    file[74] = 3;
    turn_around(file);
    write_file(path, file);
    EXPECT_THAT(tmf({"info", path}).out,
                HasSubstr("    damaged: records in the unknown format 3\n"));
}

TEST_F(TmfInfo, SurvivesEveryByteAndEveryLength)
{
    std::vector<std::string> text = {"info"};
    std::vector<std::string> json = {"info", "--json"};
    for (size_t at = 0; at < 324; at++) {
        for (const int flip : {0x01, 0x80, 0xff}) {
            std::string file = golden;
            file[at] = static_cast<char>(file[at] ^ flip);
            const std::string name = dir.file(std::to_string(at) + "-" + std::to_string(flip));
            write_file(name, file);
            text.push_back(name);
            json.push_back(name);
        }
    }
    for (size_t length = 0; length < golden.size(); length += length < 324 ? 1 : 500) {
        const std::string name = dir.file("cut" + std::to_string(length));
        write_file(name, golden.substr(0, length));
        text.push_back(name);
        json.push_back(name);
    }
    for (const auto &words : {text, json}) {
        const run_result result = tmf(words);
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, Not(HasSubstr("runtime error")));
        // All files are told about: shown, or complained of in one line each.
        const auto lines = split(result.out + result.err);
        size_t told = 0;
        for (const std::string &name : std::vector(words.begin() + 1, words.end()))
            told += result.out.find(name) != std::string::npos ||
                            result.err.find(name + ":") != std::string::npos
                        ? 1
                        : 0;
        EXPECT_EQ(told + (words[1] == "--json" ? 1 : 0), words.size() - 1);
    }
}

TEST_F(TmfInfo, SeveralFilesAreShownInTheirOrder)
{
    write_file(path, golden);
    const std::string other = dir.file("other");
    write_file(other, golden);
    const run_result result = tmf({"info", other, dir.file("none"), path});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, StartsWith(other + "\n"));
    EXPECT_THAT(result.out, HasSubstr("\n" + path + "\n"));
    EXPECT_EQ(result.err, "tmf: " + dir.file("none") + ": No such file or directory\n");
}

TEST_F(TmfInfo, JsonIsOneLineForEachFile)
{
    write_file(path, golden);
    const std::string line =
        "{\"file\":\"" + path +
        "\",\"byte_order\":\"little-endian\",\"host_order\":true,\"stamp\":\"6553f100\","
        "\"stamp_time\":\"2023-11-14T22:13:20Z\",\"records\":2,\"read_offset\":4352,"
        "\"used\":4394,\"allocated\":4396,\"high_water\":4394,\"num_readers\":0,"
        "\"num_writers\":1,\"reader_exclusive\":false,\"writer_exclusive\":false,\"readers\":[],"
        "\"writers\":[{\"slot\":0,\"pid\":4711,\"lock_held\":false,\"lock_pid\":null}],"
        "\"ownerless_waits\":[],\"signal_address\":\"127.0.0.1\",\"locked\":false,"
        "\"locked_by\":null,\"damage\":[]}\n";
    const run_result result = tmf({"info", "--json", path, path});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, line + line);
}
