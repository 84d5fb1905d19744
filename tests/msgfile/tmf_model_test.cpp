// Random operations beside a queue in memory, some of which fail.  After each the
// header's fields and the frames in the data area are compared with the queue.
#include "msgfile/tmf_io.h"
#include "tests/msgfile/records.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <deque>
#include <random>

static constexpr int32_t data_start = 4352;

class TmfModel : public MessageFile, public ::testing::WithParamInterface<unsigned> {
  protected:
    struct record {
        std::string data;
        size_t user;
    };
    const system_calls_guard guard;
    std::mt19937 random;
    std::deque<record> queue;
    int32_t read_offset = data_start;
    int32_t write_offset = data_start;
    int32_t high_water = 0;
    tmf_handle *h = nullptr;
    int mode = 0;
    bool has_read = false;
    size_t copied = 0; // records that a copying handle has read
    bool torn = false; // a failed write stands where the end mark was
    int cuts = 0;
    int faults = 0;

    void SetUp() override
    {
        answer_call(CALL_POLL, 0, 0, -1); // waits end at once, and need no port
        answer_call(CALL_BIND, 0, 0, -1);
    }
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
    // Percent.  So chosen that files become long and empty again.
    int change_chance() const
    {
        if ((mode & 1) == 0)
            return 4;
        return queue.empty() || copied == queue.size() ? 30 : 1;
    }
    void change_handle()
    {
        if (h != nullptr) {
            ASSERT_EQ(tmf_fclose(h), 0);
        }
        const int modes[] = {0, 8, 2, 1, 1, 1, 3, 7};
        mode = modes[below(8)];
        h = open(mode);
        ASSERT_NE(h, nullptr);
        has_read = false;
        copied = 0;
    }
    // Lets a call behind `after` others of its kind fail, or move less than it
    // should; the code that this has.
    int fail_some(call_kind kind, int after, int less_than, int error, int eof)
    {
        faults++;
        if (below(2) == 0) {
            fail_call(kind, EIO, after);
            return error;
        }
        answer_call(kind, below(less_than), after);
        return eof;
    }
    void write()
    {
        const int length = below(20) == 0 ? 32762 * below(2) : some_length();
        const std::string data(static_cast<size_t>(length), static_cast<char>('a' + below(26)));
        const bool possible = (mode & 1) == 0 && length > 0 && length < 32762;
        int code = 0;
        bool reaches_file = true;
        if ((mode & 1) != 0) {
            code = TMF_EREAD_ACCESS;
        } else if (!possible) {
            code = TMF_ERECORD_SIZE;
        } else if (below(12) == 0) { // the first operation of a handle writes, later ones pwrite
            const call_kind kind = h->file == &tmf_positioned_row ? CALL_PWRITE : CALL_WRITE;
            code = fail_some(kind, 0, length + 6, TMF_EWRITE_DATA, TMF_EWRITE_DATA_EOF);
            reaches_file = code == TMF_EWRITE_DATA_EOF;
        } else if (below(12) == 0) { // the data is there, the header does not know of it
            code = fail_some(CALL_PWRITE, h->file == &tmf_positioned_row ? 1 : 0, 1,
                             TMF_EWRITE_COMMON, TMF_EWRITE_COMMON_EOF);
        }
        ASSERT_EQ(write_record(h, data), code);
        if (code != 0) {
            EXPECT_EQ(tmf_geterrno(h), code);
            torn = torn || (possible && reaches_file);
            return;
        }
        torn = false;
        queue.push_back({data, 17});
        write_offset += length + 6;
        high_water = std::max(high_water, write_offset);
        int32_t end = 0;
        EXPECT_EQ(tmf_finfo(h, 2, &end, 4), 0);
        EXPECT_EQ(end, write_offset);
    }
    bool last_one_cuts() const
    {
        return queue.size() == 1 && high_water > 65536;
    }
    void remove(bool cut = true)
    {
        if (last_one_cuts() && cut) {
            high_water = data_start;
            cuts++;
        }
        read_offset += static_cast<int32_t>(queue.front().data.size()) + 6;
        queue.pop_front();
        if (queue.empty())
            read_offset = write_offset = data_start;
    }
    // No record: the end of the file, or a wait that comes to nothing.
    void read_nothing(int room, int flags)
    {
        const bool waits = mode != 7 && (!has_read || (flags & TMF_READ_WAIT) != 0);
        tmf_clearerr(h);
        const record_read got =
            watched_read(room, [&](void *buf, int n) { return tmf_freadx(h, buf, n, flags, 1); });
        EXPECT_EQ(got, whole(""));
        EXPECT_EQ(tmf_geterrno(h), waits ? TMF_ETIMEOUT : 0);
    }
    void read()
    {
        const int room = below(4) == 0 ? below(50) : 40000;
        const int flags = 2 * below(8) + (below(4) == 0 ? TMF_READ_KEEP : 0);
        const bool copies = mode == 7;
        const bool removes = !copies && (flags & TMF_READ_KEEP) == 0;
        const size_t next = copies ? copied : 0;
        if ((mode & 1) == 0) {
            EXPECT_EQ(read_record(h, room, flags).result, TMF_EWRITE_ACCESS);
            return;
        }
        if (next >= queue.size()) {
            read_nothing(room, flags);
            return;
        }
        const record_read expected = whole(queue[next].data.substr(0, static_cast<size_t>(room)));
        const bool cuts_now = removes && last_one_cuts();
        if (below(12) == 0) {
            const call_kind kind = h->file == &tmf_positioned_row ? CALL_PREAD : CALL_READ;
            const int code = fail_some(kind, 1, 6, TMF_EREAD_DATA,
                                       TMF_EREAD_DATA_EOF); // behind that of the header
            EXPECT_EQ(read_record(h, room, flags), (record_read{code, ""}));
            return;
        }
        if (cuts_now && below(3) == 0) {
            faults++;
            fail_call(CALL_FTRUNCATE, EIO);
            EXPECT_EQ(tmf_fread(h, nullptr, 0, flags), TMF_ETRUNCATE);
            has_read = true;
            remove(false);
            return;
        }
        if (removes && below(12) == 0) { // the header that is to tell of it
            const int code = fail_some(CALL_PWRITE, 0, 1, TMF_EWRITE_COMMON, TMF_EWRITE_COMMON_EOF);
            EXPECT_EQ(tmf_fread(h, nullptr, 0, flags), code);
            has_read = true;
            if (cuts_now) // it was written once more, but the file not cut
                remove(false);
            return;
        }
        ASSERT_EQ(read_record(h, room, flags), expected);
        has_read = true;
        if (copies)
            copied++;
        else if (removes)
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
        for (const record &r : queue)
            frames += framed(r.data, r.user);
        if (!queue.empty() && !torn)
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
    for (int step = 0; step < 1500 && !HasFailure(); step++) {
        const int what = below(100);
        if (below(100) < change_chance())
            change_handle();
        else if (what < 8)
            ask();
        else if ((mode & 1) != 0 ? what < 97 : what < 12)
            read();
        else
            write();
        compare();
        forget_calls();
    }
    if (GetParam() != 0) { // what these seeds are known to lead to
        EXPECT_GT(cuts, 0);
        EXPECT_GT(faults, 100);
    }
    EXPECT_EQ(tmf_fclose(h), 0);
}

INSTANTIATE_TEST_SUITE_P(Seeds, TmfModel, ::testing::Values(0U, 1U, 2U, 3U));
