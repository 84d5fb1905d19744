// Batches as a test sees them: records by their data, and reads whose buffer is watched.
#ifndef TESTS_MSGFILE_BATCHES_H
#define TESTS_MSGFILE_BATCHES_H

#include "tests/msgfile/records.h"

#include <vector>

using record_list = std::vector<std::string>;

inline int write_batch(tmf_handle *h, const record_list &records)
{
    std::vector<tmf_item> items;
    items.reserve(records.size());
    for (const std::string &data : records)
        items.push_back({data.data(), static_cast<int>(data.size())});
    return tmf_fwrite_many(h, items.data(), static_cast<int>(items.size()));
}

// What a read of a batch gave: its result and the data of the records.
struct batch_read {
    int result;
    record_list records;

    bool operator==(const batch_read &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const batch_read &r)
{
    out << r.result << " and";
    for (const std::string &data : r.records)
        out << " [" << data.size() << ": " << data.substr(0, 20) << "]";
    return out;
}

// Reads up to count records into len bytes, and expects that they lie there one behind the other,
// that nothing is put behind them, and that the items behind them say so.
inline batch_read read_batch(tmf_handle *h, int count, int len, int flags = 0)
{
    const auto room = static_cast<size_t>(len);
    std::string buf(room + 64, '\xC5');
    std::vector<tmf_item> items(static_cast<size_t>(count), tmf_item{&buf, -7});
    const int result = tmf_fread_many(h, items.data(), count, buf.data(), len, flags);
    batch_read read = {result, {}};
    const char *next = buf.data();
    for (int i = 0; i < count; i++) {
        const tmf_item &item = items[static_cast<size_t>(i)];
        if (result < 0) // behind some codes the records are in the buffer
            break;
        if (i >= result) {
            EXPECT_EQ(item.data, nullptr) << i;
            EXPECT_EQ(item.length, 0) << i;
            continue;
        }
        EXPECT_EQ(item.data, next) << i;
        read.records.emplace_back(next, static_cast<size_t>(item.length));
        next += item.length;
    }
    const auto given = static_cast<size_t>(next - buf.data());
    EXPECT_LE(given, room);
    if (result > 0) {
        EXPECT_EQ(buf.find_first_not_of('\xC5', given), std::string::npos) << "behind " << given;
    }
    return read;
}

// The result of reading all of these.
inline batch_read all_of(const record_list &records)
{
    return {static_cast<int>(records.size()), records};
}

inline batch_read no_batch(int result)
{
    return {result, {}};
}

#endif
