// tmf's JSON as a parser reads it.
#include "tests/tools/tmf/tmf_fixture.h"

#include <nlohmann/json.hpp>

using nlohmann::json;

TEST_F(TmfTool, JsonOfRecordsParses)
{
    std::string all(256, '\0');
    for (size_t i = 0; i < all.size(); i++)
        all[i] = static_cast<char>(i);
    std::string printable;
    for (char byte = ' '; byte <= '~'; byte++)
        printable += byte;
    make({all, printable, std::string(32761, '\xff')});
    const auto lines = split(tmf({"read", "--json", path}).out);
    ASSERT_EQ(lines.size(), 3U);
    const json first = json::parse(lines[0]);
    EXPECT_EQ(first.size(), 3U);
    EXPECT_EQ(first["number"], 1);
    EXPECT_EQ(first["length"], 256);
    EXPECT_EQ(first["hex"].get<std::string>().substr(0, 8), "00010203");
    EXPECT_EQ(first["hex"].get<std::string>().substr(504), "fcfdfeff");
    const json second = json::parse(lines[1]);
    EXPECT_EQ(second["number"], 2);
    EXPECT_EQ(second["length"], 95);
    EXPECT_EQ(second["text"], printable);
    const json third = json::parse(lines[2]);
    EXPECT_EQ(third["length"], 32761);
    EXPECT_EQ(third["hex"].get<std::string>(), [] {
        std::string digits;
        digits.append(size_t{2} * 32761, 'f');
        return digits;
    }());
}

TEST_F(TmfTool, JsonOfUsersParses)
{
    make();
    other_user writer(path, 0);
    const pid_t reader = start({"read", "--follow", path});
    ASSERT_TRUE(poll_until([&] { return reader_waits(); }));
    const json info = json::parse(tmf({"info", "--json", path}).out);
    kill(reader, SIGTERM);
    EXPECT_EQ(finish(reader), 143);
    EXPECT_EQ(info["reader_exclusive"], true);
    EXPECT_EQ(info["writer_exclusive"], false);
    ASSERT_EQ(info["readers"].size(), 1U);
    const json &waiting = info["readers"][0];
    EXPECT_EQ(waiting["slot"], 0);
    EXPECT_EQ(waiting["pid"], reader);
    EXPECT_EQ(waiting["lock_held"], true);
    EXPECT_EQ(waiting["lock_pid"], reader);
    EXPECT_EQ(waiting["waiting"], true);
    EXPECT_EQ(waiting["port"].get<int>() & 0xF800, 0xD000);
    ASSERT_EQ(info["writers"].size(), 1U);
    EXPECT_EQ(info["writers"][0]["pid"], writer.pid());
    EXPECT_EQ(info["writers"][0]["lock_held"], true);
}

TEST_F(TmfTool, JsonOfDamagedFilesParses)
{
    std::string golden = golden_bytes("message_file_small.hex");
    std::vector<std::string> words = {"info", "--json"};
    for (size_t at = 8; at < 256; at++) {
        std::string file = golden;
        file[at] = static_cast<char>(~file[at]);
        words.push_back(dir.file(std::to_string(at)));
        write_file(words.back(), file);
    }
    size_t shown = 0;
    for (const std::string &line : split(tmf(words).out))
        shown += json::parse(line)["file"] == "" ? 0 : 1;
    EXPECT_GE(shown, 240U);
}

// Names are bytes; what is not UTF-8 cannot be said in JSON.
TEST_F(TmfTool, JsonOfFileNamesParses)
{
    const struct {
        std::string name;
        std::string text;
    } table[] = {
        {"a\"b\\c\n\x1b\x7f", "a\"b\\c\n\x1b\x7f"},
        {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"\xe4x", "\xef\xbf\xbdx"},
        {"\xc3", "\xef\xbf\xbd"},
        {"\xc0\xaf", "\xef\xbf\xbd\xef\xbf\xbd"},
        {"\xed\xa0\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
        {"\xf4\x90\x80\x80", "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"},
    };
    for (const auto &row : table) {
        write_file(dir.file(row.name), golden_bytes("message_file_small.hex"));
        const json info = json::parse(tmf({"info", "--json", dir.file(row.name)}).out);
        EXPECT_EQ(info["file"], dir.file(row.text));
    }
}
