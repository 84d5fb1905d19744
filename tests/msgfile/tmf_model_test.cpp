// Random operations beside a queue in memory.  After each the header's fields and
// the frames in the data area are compared with the queue.
#include "tests/msgfile/message_file.h"

#include <deque>
#include <random>

static constexpr int32_t data_start = 4352;

class TmfModel : public MessageFile, public ::testing::WithParamInterface<unsigned> {
  protected:
    struct record {
        std::string data;
        int user;
    };
    std::mt19937 random;
    std::deque<record> queue;
    int32_t read_offset = data_start;
    int32_t write_offset = data_start;
    int32_t high_water = 0;
    tmf_handle *h = nullptr;
    int mode = 0;
    bool has_read = false;
    size_t copied = 0; // records that a copying handle has read

    int below(int n)
    {
        return static_cast<int>(random() % static_cast<unsigned>(n));
    }
    int some_length()
    {
        switch (below(12)) {
        case 0:
            return 32761 - below(3);
        case 1:
            return 1000 + below(9000);
        default:
            return 1 + below(300);
        }
    }
    void change_handle()
    {
        if (h != nullptr) {
            ASSERT_EQ(tmf_fclose(h), 0);
        }
        const int modes[] = {0, 0, 8, 1, 1, 2, 3, 7};
        mode = modes[below(8)];
        h = open(mode);
        ASSERT_NE(h, nullptr);
        has_read = false;
        copied = 0;
    }
    void write()
    {
        const std::string data(static_cast<size_t>(some_length()),
                               static_cast<char>('a' + below(26)));
        const int result = tmf_fwrite(h, data.data(), static_cast<int>(data.size()));
        if ((mode & 1) != 0) {
            EXPECT_EQ(result, -5230);
            return;
        }
        EXPECT_EQ(result, 0);
        queue.push_back({data, 17});
        write_offset += static_cast<int32_t>(data.size()) + 6;
        high_water = std::max(high_water, write_offset);
        int32_t end = 0;
        EXPECT_EQ(tmf_finfo(h, 2, &end, 4), 0);
        EXPECT_EQ(end, write_offset);
    }
    void remove()
    {
        read_offset += static_cast<int32_t>(queue.front().data.size()) + 6;
        queue.pop_front();
        if (!queue.empty())
            return;
        read_offset = write_offset = data_start;
        if (high_water > 65536)
            high_water = data_start;
    }
    void read()
    {
        const int room = below(4) == 0 ? below(50) : 40000;
        const int flags = below(3) == 0 ? TMF_READ_KEEP : 0;
        std::string buffer(static_cast<size_t>(room), '-');
        const bool copies = mode == 7;
        const size_t next = copies ? copied : 0;
        if ((mode & 1) != 0 && next >= queue.size() && !copies && !has_read)
            return; // would wait for a writer
        const int result = tmf_fread(h, buffer.data(), room, flags);
        if ((mode & 1) == 0) {
            EXPECT_EQ(result, -5231);
            return;
        }
        if (next >= queue.size()) {
            EXPECT_EQ(result, 0);
            return;
        }
        const std::string expected = queue[next].data.substr(0, buffer.size());
        ASSERT_EQ(result, static_cast<int>(expected.size()));
        EXPECT_EQ(buffer.substr(0, expected.size()), expected);
        EXPECT_EQ(buffer.find_first_not_of('-', expected.size()), std::string::npos);
        has_read = true;
        if (copies)
            copied++;
        else if (flags == 0)
            remove();
    }
    void ask()
    {
        int32_t records = -1;
        int32_t end = -1;
        EXPECT_EQ(tmf_getinfo(h, 1, &records, 5, &end, 0), 0);
        EXPECT_EQ(records, static_cast<int32_t>(queue.size()));
        EXPECT_EQ(end, write_offset);
    }
    void compare() const
    {
        const std::string file = bytes_through(h);
        EXPECT_EQ(number_at<int32_t>(file, 16), static_cast<int32_t>(queue.size()));
        EXPECT_EQ(number_at<int32_t>(file, 36), read_offset);
        EXPECT_EQ(number_at<int32_t>(file, 44), write_offset);
        EXPECT_EQ(number_at<int32_t>(file, 60), high_water);
        EXPECT_EQ(number_at<int16_t>(file, 68), mode & 1);
        EXPECT_EQ(number_at<int16_t>(file, 70), 1 - (mode & 1));
        std::string frames;
        for (const record &r : queue) {
            const size_t length = r.data.size() + 6;
            const std::string word = {static_cast<char>(length >> 8), static_cast<char>(length)};
            frames += word + '\0' + static_cast<char>(r.user) + r.data + word;
        }
        if (!queue.empty())
            frames += "\xFF\xFF";
        EXPECT_SAME_BYTES(file.substr(static_cast<size_t>(read_offset), frames.size()), frames);
    }
};

TEST_P(TmfModel, FileIsTheQueue)
{
    const unsigned seed = GetParam() != 0 ? GetParam() : std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    random.seed(seed);
    change_handle();
    for (int step = 0; step < 600 && !HasFailure(); step++) {
        const int what = below(100);
        if (what < 6)
            change_handle();
        else if (what < 12)
            ask();
        else if ((mode & 1) != 0 || what < 15)
            read();
        else
            write();
        compare();
    }
    EXPECT_EQ(tmf_fclose(h), 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, TmfModel, ::testing::Values(0U, 1U, 2U, 3U));
