// Lines from files of any length, whole and cut.
#include "tests/support/tempdir.h"
#include "util/line_reader.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

struct read_result {
    std::vector<std::string> lines;
    line_found last = LINE_FOUND;
    line_reader reader;
};

static read_result read_lines(const std::string &input, size_t longest = LINE_LENGTH_MAX)
{
    const tempdir dir;
    write_file(dir.file("in"), input);
    read_result result;
    result.reader.longest = longest;
    result.reader.fd = open(dir.file("in").c_str(), O_RDONLY);
    std::string_view line;
    while ((result.last = line_reader_next(result.reader, line)) == LINE_FOUND)
        result.lines.emplace_back(line);
    close(result.reader.fd);
    return result;
}

TEST(LineReader, GivesLinesWithoutTheirEnds)
{
    const read_result result = read_lines("one\n\nthree\n");
    EXPECT_EQ(result.lines, (std::vector<std::string>{"one", "", "three"}));
    EXPECT_EQ(result.last, LINE_END);
    EXPECT_FALSE(result.reader.torn);
    EXPECT_EQ(result.reader.number, 3U);
    EXPECT_EQ(result.reader.bytes, 11U);
}

TEST(LineReader, LastLineWithoutItsEndIsGivenAndSaidToBeTorn)
{
    const read_result result = read_lines("one\ntw");
    EXPECT_EQ(result.lines, (std::vector<std::string>{"one", "tw"}));
    EXPECT_EQ(result.last, LINE_END);
    EXPECT_TRUE(result.reader.torn);
}

TEST(LineReader, EmptyInputHasNoLine)
{
    const read_result result = read_lines("");
    EXPECT_TRUE(result.lines.empty());
    EXPECT_EQ(result.last, LINE_END);
}

TEST(LineReader, LinesLongerThanTheBufferArriveWhole)
{
    std::vector<std::string> lines;
    std::string input;
    for (size_t length :
         {size_t{10}, size_t{3'000'000}, size_t{0}, size_t{700'000}, size_t{1'500'000}}) {
        std::string line(length, static_cast<char>('a' + lines.size()));
        for (size_t i = 0; i < length; i += 997)
            line[i] = static_cast<char>('0' + i % 10);
        input += line + "\n";
        lines.push_back(std::move(line));
    }
    const read_result result = read_lines(input);
    EXPECT_TRUE(result.lines == lines);
    EXPECT_EQ(result.reader.bytes, input.size());
}

TEST(LineReader, LineAboveTheLimitIsRefusedAndTheLimitItselfIsNot)
{
    EXPECT_EQ(read_lines("12345\n", 5).last, LINE_END);
    const read_result result = read_lines("one\n123456\n", 5);
    EXPECT_EQ(result.last, LINE_TOO_LONG);
    EXPECT_EQ(result.reader.number, 1U);
    EXPECT_EQ(read_lines("123456", 5).last, LINE_TOO_LONG);
    EXPECT_EQ(read_lines(std::string(3'000'000, 'x'), 2'000'000).last, LINE_TOO_LONG);
}

TEST(LineReader, UnreadableInputIsAnError)
{
    line_reader reader;
    const tempdir dir;
    reader.fd = open(dir.path().c_str(), O_RDONLY);
    std::string_view line;
    EXPECT_EQ(line_reader_next(reader, line), LINE_ERROR);
    EXPECT_EQ(errno, EISDIR);
    close(reader.fd);
}
