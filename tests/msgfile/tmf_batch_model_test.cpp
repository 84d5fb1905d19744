// Random calls for one record and for many, by a writer and a reader, beside a queue in memory;
// some of them fail.  After each the header's numbers and the frames are compared with the queue.
#include "tests/msgfile/batches.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <deque>
#include <random>

class TmfBatchModel : public MessageFile, public ::testing::WithParamInterface<unsigned> {
  protected:
    const system_calls_guard guard;
    std::mt19937 random;
    std::deque<std::string> queue;
    positions numbers = {0, 4352, 4352, 0};
    std::unique_ptr<opened_file> writer;
    std::unique_ptr<opened_file> reader;
    bool proven_writer = false; // its calls go to their places
    bool copies = false;
    size_t copied = 0; // records that the copying reader has read
    bool torn = false; // a failed write stands where the end mark was
    int batches = 0;   // of more than one record, read or removed
    int partial = 0;   // of less than was asked for, since the buffer was short
    int faults = 0;
    int cuts = 0;

    int below(int n)
    {
        return static_cast<int>(random() % static_cast<unsigned>(n));
    }
    std::string some_record()
    {
        const int kind = below(40);
        const int length = kind == 0  ? 32761 - below(3)
                           : kind < 4 ? 1 + below(9000)
                                      : 1 + below(300);
        return some_data(static_cast<size_t>(length), static_cast<unsigned>(random()));
    }
    // Opening takes the process's other handle for a dead user, which changes neither records
    // nor what it may do.
    void change_reader()
    {
        reader.reset();
        copies = below(4) == 0;
        copied = 0;
        reader = std::make_unique<opened_file>(path, copies ? 7 : 3);
    }

    // ---- writing

    void appended(const std::string &data)
    {
        queue.push_back(data);
        numbers.records++;
        numbers.write_offset += static_cast<int32_t>(data.size()) + 6;
        numbers.high_water = std::max(numbers.high_water, numbers.write_offset);
    }
    void write()
    {
        record_list records(static_cast<size_t>(below(3) == 0 ? 1 : below(40)));
        size_t length = 0;
        for (std::string &data : records) {
            data = some_record();
            length += data.size() + 6;
        }
        int code = 0;
        if (!records.empty() && below(8) == 0) {
            faults++;
            const bool cut = below(2) == 0;
            const call_kind kind = proven_writer ? CALL_PWRITE : CALL_WRITE;
            if (cut)
                answer_call(kind, below(static_cast<int>(length)));
            else
                fail_call(kind, ENOSPC);
            code = cut ? TMF_EWRITE_DATA_EOF : TMF_EWRITE_DATA;
            torn = torn || cut;
        }
        if (records.size() == 1 && below(2) == 0)
            ASSERT_EQ(write_record(*writer, records[0]), code);
        else
            ASSERT_EQ(write_batch(*writer, records), code);
        if (code != 0 || records.empty())
            return;
        proven_writer = true;
        torn = false;
        for (const std::string &data : records)
            appended(data);
    }

    // ---- reading

    void removed(size_t count)
    {
        for (; count > 0; count--) {
            numbers.read_offset += static_cast<int32_t>(queue.front().size()) + 6;
            numbers.records--;
            queue.pop_front();
        }
        if (!queue.empty())
            return;
        numbers.read_offset = numbers.write_offset = 4352;
        if (numbers.high_water > 65536) {
            numbers.high_water = 4352;
            cuts++;
        }
    }
    void has_read(size_t count, int flags)
    {
        if (copies)
            copied += count;
        else if ((flags & TMF_READ_KEEP) == 0 && count > 0)
            removed(count);
    }
    void read_one()
    {
        const size_t next = copies ? copied : 0;
        const int len = below(3) == 0 ? below(200) : 33000;
        const int flags = below(3) == 0 ? TMF_READ_KEEP : 0;
        if (next == queue.size()) {
            EXPECT_EQ(read_or_time(len, flags), 0);
            return;
        }
        ASSERT_EQ(read_record(*reader, len, flags),
                  whole(queue[next].substr(0, static_cast<size_t>(len))));
        has_read(1, flags);
    }
    // A handle that has read nothing yet waits.
    int read_or_time(int len, int flags)
    {
        const int result = read_batch(*reader, 3, len, flags | TMF_READ_LIMIT).result;
        return result == TMF_ETIMEOUT ? 0 : result;
    }
    void read_many()
    {
        const size_t next = copies ? copied : 0;
        const int count = below(50);
        const int len = below(3) == 0 ? below(2000) : below(200000);
        const int flags = (below(3) == 0 ? TMF_READ_KEEP : 0) | TMF_READ_LIMIT;
        if (next == queue.size() || count == 0) {
            EXPECT_EQ(count == 0 ? read_batch(*reader, 0, len, flags).result
                                 : read_or_time(len, flags),
                      0);
            return;
        }
        record_list expected;
        auto room = static_cast<size_t>(len);
        for (size_t i = next; i < queue.size() && expected.size() < static_cast<size_t>(count);
             i++) {
            if (i > next && queue[i].size() > room) {
                partial++;
                break;
            }
            expected.push_back(queue[i].substr(0, room));
            room -= expected.back().size();
        }
        if (proven_reader() && below(10) == 0) {
            faults++;
            fail_call(CALL_PREAD, EIO, 1);
            ASSERT_EQ(read_batch(*reader, count, len, flags), no_batch(TMF_EREAD_DATA));
            return;
        }
        ASSERT_EQ(read_batch(*reader, count, len, flags), all_of(expected));
        batches += expected.size() > 1 ? 1 : 0;
        has_read(expected.size(), flags);
    }
    bool proven_reader() const
    {
        return (*reader)->records_read > 0;
    }
    void remove()
    {
        const auto count = static_cast<size_t>(below(20));
        const int code = copies ? TMF_ECOPYMODE : count > queue.size() ? TMF_EREAD_DATA_EOF : 0;
        ASSERT_EQ(tmf_fremove(*reader, static_cast<int>(count)), code);
        if (code == 0 && count > 0)
            removed(count);
        batches += code == 0 && count > 1 ? 1 : 0;
    }

    void compare() const
    {
        const std::string file = bytes_through(*writer);
        EXPECT_EQ(positions_in(file), numbers);
        std::string frames;
        for (const std::string &data : queue)
            frames += framed(data);
        if (!queue.empty() && !torn)
            frames += "\xFF\xFF";
        EXPECT_SAME_BYTES(file.substr(static_cast<size_t>(numbers.read_offset), frames.size()),
                          frames);
    }
};

TEST_P(TmfBatchModel, FileIsTheQueue)
{
    const unsigned seed = GetParam() != 0 ? GetParam() : std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    random.seed(seed);
    answer_call(CALL_POLL, 0, 0, -1); // waits end at once, and need no port
    answer_call(CALL_BIND, 0, 0, -1);
    answer_call(CALL_SENDTO, 12, 0, -1);
    writer = std::make_unique<opened_file>(path, 0);
    change_reader();
    for (int step = 0; step < 800 && !HasFailure(); step++) {
        const int what = below(100);
        if (what < 3)
            change_reader();
        else if (what < 30)
            write();
        else if (what < 50)
            read_one();
        else if (what < 85)
            read_many();
        else
            remove();
        compare();
        forget_calls();
    }
    if (GetParam() != 0) { // what these seeds are known to lead to
        EXPECT_GT(batches, 50);
        EXPECT_GT(partial, 5);
        EXPECT_GT(faults, 10);
        EXPECT_GT(cuts, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, TmfBatchModel, ::testing::Values(0U, 1U, 2U, 3U));
