// Messages whose texts are converted; what needs no server.
#include "feed/postgresql/encoding.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

static std::string row(char kind)
{
    return kind + "\0\4t\0\0\0\3abcnut\0\0\0\0"s;
}

// In ASCII each message is what it was, whole or cut short anywhere, and whatever a byte becomes.
TEST(EncodingMessage, AsciiIsPassedOnAsItIs)
{
    pgs_server server;
    pge_begin(server);
    const std::string messages[] = {
        "R\0\0\0\7public\0table\0f\0\2\1id\0\0\0\0\x17\xFF\xFF\xFF\xFF\0note\0\0\0\0\x19\0\0\0\5"s,
        "Y\0\0\1\2public\0mood\0"s,
        "I\0\0\0\7"s + row('N'),
        "U\0\0\0\7"s + row('K') + row('N'),
        "U\0\0\0\7"s + row('N'),
        "D\0\0\0\7"s + row('O'),
        "M\1\0\0\0\0\0\0\0\1prefix\0\0\0\0\2\x81\xFF"s,
        "O\0\0\0\0\0\0\0\1origin\0"s,
        "B\0\0\0\0\0\0\0\x81\0\0\0\0\0\0\0\x82\0\0\0\x83"s,
        "C\0"s,
        "T\0\0\0\1\0\0\0\0\x81"s,
        "\xFF\xFE"s,
    };
    for (const std::string &message : messages)
        for (size_t length = 0; length <= message.size(); length++)
            for (size_t changed = 0; changed <= length; changed++) {
                std::string bytes = message.substr(0, length);
                if (changed < length)
                    bytes[changed] = static_cast<char>((bytes[changed] + 1) & 0x7F);
                std::string out = "before ";
                const outcome done = pge_message(out, server, bytes);
                if (done) // else it came to a text that is no ASCII, and has no server to ask
                    EXPECT_EQ(out, "before " + bytes);
                else
                    EXPECT_EQ(done.kind(), OUTCOME_LOST);
                EXPECT_TRUE(done || length == changed || message[0] == 'R') << message;
            }
}

TEST(Encoding, QueriesOfServersThatConvertStayAsTheyAre)
{
    const pgs_server server;
    std::string out;
    EXPECT_TRUE(pge_query(out, server, "SELECT '\xC3\xA9\x81'"));
    EXPECT_EQ(out, "SELECT '\xC3\xA9\x81'");
}

TEST(Encoding, BytesThatWereNoCharacterAreGivenBack)
{
    pgs_server server;
    pge_begin(server);
    std::string out;
    EXPECT_TRUE(pge_query(out, server, "a\xED\xB2\x81\xED\xB3\xBF b"));
    EXPECT_EQ(out, "a\x81\xFF b");
}
