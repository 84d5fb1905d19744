// The page of the format, docs/message-file.md: its file in hexadecimal is the golden
// one, its tables say what the layout and the code table have.
#include "msgfile/tmf_common.h"
#include "tests/msgfile/message_file.h"
#include "tests/support/markdown.h"

static std::string page()
{
    return md_page("docs/message-file.md");
}

// The number at the beginning of a cell.
static long number_in(const std::string &cell)
{
    return std::stol(cell);
}

TEST(MessageFilePage, FileInHexadecimalIsTheGoldenOne)
{
    const std::string file = golden("message_file_small.hex");
    const std::string begins = "# common area"; // behind what the page says around it
    EXPECT_EQ(md_find_block(page(), begins), file.substr(file.find(begins)));
}

TEST(MessageFilePage, RegionsAreThoseOfTheLayout)
{
    const md_table table = md_find_table(md_section(page(), "Regions"), "at");
    ASSERT_EQ(table.rows.size(), 3U);
    EXPECT_EQ(number_in(table.rows[0][1]), TMF_COMMON_SIZE);
    EXPECT_EQ(number_in(table.rows[1][0]), TMF_LOCK_AREA_OFFSET);
    EXPECT_EQ(number_in(table.rows[1][1]), TMF_LOCK_AREA_SIZE);
    EXPECT_EQ(number_in(table.rows[2][0]), TMF_DATA_START);
}

struct field {
    const char *name;
    size_t at;
    size_t size;
};

#define FIELD(name)                                                 \
    {                                                               \
#name, offsetof(tmf_common, name), sizeof(tmf_common::name) \
    }
static const field fields[] = {
    FIELD(byte_order_mark),
    FIELD(reserved_0),
    FIELD(magic),
    FIELD(common_size),
    FIELD(lock_area_size),
    FIELD(record_count),
    FIELD(reserved_1),
    FIELD(reserved_2),
    FIELD(data_start),
    FIELD(reserved_3),
    FIELD(read_offset),
    FIELD(reserved_4),
    FIELD(write_offset),
    FIELD(reserved_5),
    FIELD(lock_area_offset),
    FIELD(reserved_6),
    FIELD(high_water),
    FIELD(max_readers),
    FIELD(max_writers),
    FIELD(num_readers),
    FIELD(num_writers),
    FIELD(flags),
    FIELD(format_version),
    FIELD(writer_slot_size),
    FIELD(reader_slot_size),
    FIELD(signal_addr),
    FIELD(file_stamp),
    FIELD(signal_ports),
    FIELD(wait_list),
    FIELD(reader_map),
    FIELD(writer_map),
    FIELD(reserved_7),
};
#undef FIELD

// Bytes of a field by its type: "u16 host", "4 chars", "16 x u16 big-endian".
static size_t size_of(const std::string &type)
{
    if (type.find(" x u16") != std::string::npos)
        return 2 * std::stoul(type);
    if (type.starts_with("u16") || type.starts_with("i16"))
        return 2;
    if (type.starts_with("u32") || type.starts_with("i32"))
        return 4;
    return std::stoul(type);
}

// A new file's field as the page writes it.
static std::string value_of(const tmf_common &common, const field &f)
{
    const std::string bytes(reinterpret_cast<const char *>(&common) + f.at, f.size);
    if (f.name == std::string("byte_order_mark"))
        return common.byte_order_mark == 0xFEFF ? "FEFF" : "?";
    if (f.name == std::string("magic"))
        return "`" + bytes + "`";
    if (f.name == std::string("signal_addr")) {
        std::string text;
        for (const unsigned char byte : common.signal_addr)
            text += (text.empty() ? "" : " ") + std::to_string(byte);
        return text;
    }
    if (f.name == std::string("file_stamp"))
        return ""; // it is not there before the first user
    if (f.size == 2 || f.size == 4)
        return std::to_string(f.size == 2 ? number_at<int16_t>(bytes, 0)
                                          : number_at<int32_t>(bytes, 0));
    return bytes == std::string(f.size, '\0') ? "0" : "?";
}

TEST(MessageFilePage, CommonAreaIsThatOfTheLayout)
{
    tmf_common common;
    tmfc_init_tmc(&common);
    common.read_offset = common.write_offset = common.data_start; // as a new file's
    const md_table table = md_find_table(md_section(page(), "Common area"), "at");
    ASSERT_EQ(table.rows.size(), std::size(fields));
    for (size_t i = 0; i < std::size(fields); i++) {
        const std::vector<std::string> &row = table.rows[i];
        EXPECT_EQ(number_in(row[0]), static_cast<long>(fields[i].at)) << fields[i].name;
        EXPECT_EQ(size_of(row[1]), fields[i].size) << fields[i].name;
        EXPECT_EQ(row[2], "`" + std::string(fields[i].name) + "`");
        EXPECT_EQ(row[3], value_of(common, fields[i])) << fields[i].name;
    }
}

// "reverse the words at 0, 2 (16 bits), 8, 12 ... (32 bits)".
TEST(MessageFilePage, ReversedWordsAreThoseOfTheLayout)
{
    std::string list = page();
    const size_t from = list.find("reverse the words at");
    ASSERT_NE(from, std::string::npos);
    list = list.substr(from + 20, list.find("not the", from) - from - 20);
    std::vector<std::pair<int, int>> told;
    size_t open = 0; // words whose width is not told yet
    std::istringstream words(list);
    for (std::string word; words >> word;) {
        if (word[0] == '(') {
            for (; open < told.size(); open++)
                told[open].second = std::stoi(word.substr(1)) / 8;
        } else if (isdigit(static_cast<unsigned char>(word[0])) != 0) {
            told.emplace_back(std::stoi(word), 0);
        }
    }
    std::vector<std::pair<int, int>> expected;
    for (const tmf_word &word : TMF_HOST_WORDS)
        expected.emplace_back(word.at, word.width);
    EXPECT_EQ(told, expected);
}

// What differs on a big-endian host: the bytes of the golden file, and the same ones
// reversed, at each place that the row names.
TEST(MessageFilePage, BigEndianFileIsTheGoldenOneReversed)
{
    const std::string file = golden_bytes("message_file_small.hex");
    const md_table table = md_find_table(md_section(page(), "One file, byte by byte"), "at");
    std::string left = file;
    for (const auto &row : table.rows) {
        std::string little;
        std::istringstream bytes(md_code(row[1]).at(0));
        for (std::string byte; bytes >> byte;)
            little += static_cast<char>(std::stoi(byte, nullptr, 16));
        std::string big;
        std::istringstream reversed(md_code(row[2]).at(0));
        for (std::string byte; reversed >> byte;)
            big += static_cast<char>(std::stoi(byte, nullptr, 16));
        EXPECT_EQ(big, std::string(little.rbegin(), little.rend())) << row[0];
        std::istringstream places(row[0]);
        for (std::string place; std::getline(places, place, ',');) {
            EXPECT_EQ(file.substr(std::stoul(place), little.size()), little) << place;
            left.replace(std::stoul(place), little.size(), little.size(), '\0');
        }
    }
    // All other numbers of the area and the slots are the same both ways.
    for (const tmf_word &word : TMF_HOST_WORDS)
        EXPECT_EQ(left.substr(word.at, word.width), std::string(word.width, '\0')) << word.at;
    EXPECT_EQ(left.substr(320, 4), std::string(4, '\0'));
}

TEST(MessageFilePage, WakeUpIsThatOfTheLayout)
{
    const md_table table = md_find_table(md_section(page(), "Waiting"), "at");
    ASSERT_EQ(table.rows.size(), 5U);
    EXPECT_EQ(md_code(table.rows[0][1]).at(0), std::string(1, TMF_SIGNAL_FIRST));
    EXPECT_EQ(number_in(table.rows[1][0]), long{TMF_SIGNAL_KIND_AT});
    EXPECT_EQ(md_code(table.rows[1][1]),
              (std::vector<std::string>{{TMF_SIGNAL_WRITE}, {TMF_SIGNAL_CLOSE}}));
    EXPECT_EQ(number_in(table.rows[2][0]), long{TMF_SIGNAL_ZERO_AT});
    EXPECT_EQ(number_in(table.rows[3][0]), long{TMF_SIGNAL_LENGTH_AT});
    EXPECT_EQ(number_in(table.rows[3][1]), long{TMF_STAMP_SIZE});
    EXPECT_EQ(number_in(table.rows[4][0]), long{TMF_SIGNAL_STAMP_AT});
}

// The errors' texts, with "%s" where tmf_strerror has its own words.
TEST(MessageFilePage, TextsAreThoseOfTheCodes)
{
    const md_table table = md_find_table(md_section(page(), "Errors"), "code");
    for (const auto &row : table.rows) {
        std::string texts = row.at(1);
        std::istringstream codes(row.at(0));
        for (std::string code; std::getline(codes, code, ',');) {
            const size_t end = texts.find(" / ");
            std::string text = texts.substr(0, end);
            texts = end == std::string::npos ? "" : texts.substr(end + 3);
            if (const size_t at = text.find("%s"); at != std::string::npos)
                text.replace(at, 2, "(system error)");
            EXPECT_EQ(text, tmf_strerror(std::stoi(code))) << code;
        }
        EXPECT_EQ(texts, "") << row.at(0);
    }
}
