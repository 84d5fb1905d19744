// Damaged records and positions: what a read gives of them is exactly what the
// format makes of the bytes that the file holds, or a code that changes nothing;
// and a file that promises more than it has comes to an end.
#include "tests/msgfile/records.h"
#include "tests/msgfile/system_calls.h"

#include <climits>
#include <random>
#include <vector>

class TmfDamagedRecords : public MessageFile {
  protected:
    system_calls_guard guard;

    void SetUp() override
    {
        answer_call(CALL_POLL, 0, 0, -1); // no wait takes time
        answer_call(CALL_BIND, 0, 0, -1); // nor a port
    }
    static void put_bytes(const tmf_handle *h, size_t at, const std::string &bytes)
    {
        ASSERT_EQ(pwrite(h->fd, bytes.data(), bytes.size(), static_cast<off_t>(at)),
                  static_cast<ssize_t>(bytes.size()));
    }
};

// All lengths, in front of so many bytes that each could be right, and before an
// end that lets only some be so.
TEST_F(TmfDamagedRecords, EachLengthIsTakenAtItsWordOrRefused)
{
    for (const int32_t used : {42, 32767, 70000}) {
        unlink(path.c_str());
        make();
        std::string file = bytes();
        put_positions(file, {2, 4352, 4352 + used, 4352 + used});
        file += some_data(static_cast<size_t>(used));
        write_file(path, file);
        const opened_file reader(path, 1);
        file.replace(0, 256, bytes_through(reader), 0, 256);
        for (int length = 0; length <= 65535; length++) {
            put_bytes(reader, 4352, be16(static_cast<size_t>(length)));
            const bool sound = length >= 6 && length <= used;
            const auto given = static_cast<size_t>(std::clamp(length - 6, 0, 50));
            const record_read expected =
                sound ? whole(file.substr(4356, given)) : record_read{TMF_EREAD_DATA_EOF, ""};
            const record_read got = read_record(reader, 50);
            const positions after = positions_of(reader);
            ASSERT_EQ(got, expected) << length << " of " << used;
            ASSERT_EQ(after, (positions{sound ? 1 : 2, sound ? 4352 + length : 4352, 4352 + used,
                                        4352 + used}))
                << length << " of " << used;
            put_bytes(reader, 0, file.substr(0, 256));
        }
    }
}

// The longest length that a frame can state, and a buffer that would take it.
TEST_F(TmfDamagedRecords, LengthBeyondAnyRecordsIsReadAsFarAsTheFileGoes)
{
    make();
    std::string file = bytes();
    put_positions(file, {1, 4352, 4352 + 65535, 4352 + 65535});
    file += "\xFF\xFF" + some_data(65533);
    write_file(path, file);
    for (const int room : {32761, 65529, 65530, 100000}) {
        const opened_file copier(path, 7);
        const auto given = static_cast<size_t>(std::min(room, 65529));
        EXPECT_EQ(read_record(copier, room), whole(file.substr(4356, given)));
        EXPECT_EQ(copier->copy_offset, 4352 + 65535);
    }
    file.resize(file.size() - 3); // without the trailer, which nobody looks at
    write_file(path, file);
    EXPECT_EQ(read_record(opened_file(path, 7), 65529), (record_read{TMF_EREAD_DATA_EOF, ""}));
    EXPECT_EQ(read_record(opened_file(path, 7), 65528), whole(file.substr(4356, 65528)));
}

// Data is given only when all of it is there, the frame's first six bytes always.
TEST_F(TmfDamagedRecords, FileCutAtEachLengthGivesWhatItHoldsOrNothing)
{
    make({"the first", "the second record", "x"});
    const std::string good = bytes();
    const struct {
        size_t at;
        std::string data;
    } records[] = {{4352, "the first"}, {4367, "the second record"}, {4390, "x"}};
    for (const int mode : {1, 7}) {
        for (const size_t room : {0U, 4U, 12U, 100U}) {
            for (size_t end = 4352; end <= good.size(); end++) {
                SCOPED_TRACE(std::to_string(end) + " into " + std::to_string(room));
                write_file(path, good.substr(0, end));
                const opened_file reader(path, mode);
                for (const auto &record : records) {
                    const std::string data = record.data.substr(0, room);
                    const bool there = end >= record.at + std::max<size_t>(4 + data.size(), 6);
                    const record_read got = read_record(reader, static_cast<int>(room));
                    ASSERT_EQ(got, there ? whole(data) : (record_read{TMF_EREAD_DATA_EOF, ""}));
                    if (!there)
                        break;
                }
            }
        }
    }
}

// What a read gives, destroying and copying, and a write, of positions that no
// file has.
TEST_F(TmfDamagedRecords, PositionsOutsideTheRecordsHaveTheirCodes)
{
    make({"one", "three"}); // to 4372
    const std::string good = bytes();
    const auto code = [](int c) { return record_read{c, ""}; };
    const struct {
        positions damaged;
        record_read taken;
        record_read copied;
        int written;
    } rows[] = {
        {{2, -1, 4372, 0}, code(TMF_ESEEK_DATA), code(TMF_ESEEK_DATA), 0},
        {{2, INT_MIN, 4372, 0}, code(TMF_ESEEK_DATA), code(TMF_ESEEK_DATA), 0},
        {{2, 0, 4372, 0},
         code(TMF_ESEEK_DATA_EOF),
         code(TMF_ESEEK_DATA_EOF),
         0}, // among the header's numbers
        {{2, 256, 4372, 0}, code(TMF_ESEEK_DATA_EOF), code(TMF_ESEEK_DATA_EOF), 0},
        {{2, 4351, 4372, 0}, code(TMF_ESEEK_DATA_EOF), code(TMF_ESEEK_DATA_EOF), 0},
        {{2, 4372, 4372, 0}, code(TMF_EREAD_DATA_EOF), code(TMF_EREAD_DATA_EOF), 0}, // at the end
        {{2, 5000, 4372, 0},
         code(TMF_EREAD_DATA_EOF),
         code(TMF_EREAD_DATA_EOF),
         0}, // behind the file
        {{2, INT_MAX, 4372, 0}, code(TMF_EREAD_DATA_EOF), code(TMF_EREAD_DATA_EOF), 0}, //
        {{2, 4352, 4352, 0},
         code(TMF_EREAD_DATA_EOF),
         code(TMF_EREAD_DATA_EOF),
         0}, // records without bytes
        {{2, 4352, 4360, 0},
         code(TMF_EREAD_DATA_EOF),
         code(TMF_EREAD_DATA_EOF),
         0},                                                            // a record cut by the end
        {{2, 4352, 4361, 0}, whole("one"), whole("one"), 0},            // and one that is not
        {{2, 4352, -1, 0}, whole("one"), whole("one"), TMF_ESEEK_DATA}, // a long way to the end
        {{2, 4352, INT_MIN, 0}, whole("one"), whole("one"), TMF_ESEEK_DATA},  //
        {{2, 4352, 0, 0}, whole("one"), whole("one"), TMF_ESEEK_DATA_EOF},    //
        {{2, 4352, 4351, 0}, whole("one"), whole("one"), TMF_ESEEK_DATA_EOF}, //
        {{0, 4352, 4372, 0}, whole(""), whole(""), 0},                        // none is counted
        {{-1, 4352, 4372, 0}, whole("one"), whole(""), 0},                    //
        {{INT_MIN, 4352, 4372, 0}, whole("one"), whole(""), 0},               //
        {{INT_MAX, 4352, 4372, 0}, whole("one"), whole("one"), 0},            //
        {{2, 4361, 4372, -5}, whole("three"), whole("three"), 0},             //
        {{2, 4355, 4372, 0},
         code(TMF_EREAD_DATA_EOF),
         code(TMF_EREAD_DATA_EOF),
         0}, // inside a frame
    };
    for (const auto &row : rows) {
        std::ostringstream name;
        name << row.damaged;
        SCOPED_TRACE(name.str());
        std::string file = good;
        put_positions(file, row.damaged);
        const auto fresh = [&](int mode) {
            unlink(path.c_str());
            write_file(path, file);
            return open(mode);
        };
        char buf[64];
        tmf_handle *h = fresh(1);
        ASSERT_NE(h, nullptr);
        const record_read taken = watched_read(
            60, [=](void *to, int n) { return tmf_freadx(h, to, n, TMF_READ_KEEP, 1); });
        EXPECT_EQ(taken, row.taken);
        EXPECT_EQ(positions_of(h), row.damaged);
        EXPECT_EQ(tmf_freadx(h, buf, 60, 0, 1), row.taken.result);
        if (row.taken.result <= 0) {
            EXPECT_EQ(positions_of(h), row.damaged);
        }
        EXPECT_EQ(tmf_fclose(h), 0);

        tmf_handle *copier = fresh(7);
        ASSERT_NE(copier, nullptr);
        EXPECT_EQ(read_record(copier, 60), row.copied);
        EXPECT_EQ(positions_of(copier), row.damaged);
        EXPECT_EQ(tmf_fclose(copier), 0);

        tmf_handle *writer = fresh(0);
        ASSERT_NE(writer, nullptr);
        EXPECT_EQ(tmf_fwrite(writer, "ab", 2), row.written);
        if (row.written != 0) {
            EXPECT_EQ(positions_of(writer), row.damaged);
            EXPECT_SAME_BYTES(bytes_through(writer).substr(4352), good.substr(4352));
        }
        EXPECT_EQ(tmf_fclose(writer), 0);
    }
}

TEST_F(TmfDamagedRecords, CountOfMoreRecordsThanThereAreEndsAtTheLast)
{
    make({"one", "three"});
    for (const int mode : {7, 1}) {
        for (const int32_t count : {INT_MAX, INT_MIN, -1, 3}) {
            std::string file = bytes();
            put_positions(file, {count, 4352, 4372, 4372});
            write_file(path, file);
            const opened_file reader(path, mode);
            if (mode == 7 && count < 0) { // fewer than the copy has read already
                EXPECT_EQ(read_record(reader, 9), whole(""));
                continue;
            }
            EXPECT_EQ(read_record(reader, 9), whole("one"));
            EXPECT_EQ(read_record(reader, 9), whole("three"));
            for (int i = 0; i < 3; i++)
                EXPECT_EQ(read_record(reader, 9), (record_read{TMF_EREAD_DATA_EOF, ""}));
            // INT_MIN - 1 is INT_MAX.
            const auto left = mode == 7 ? count : static_cast<int32_t>(int64_t{count} - 2);
            EXPECT_EQ(positions_of(reader), (positions{left, mode == 7 ? 4352 : 4372, 4372, 4372}));
        }
    }
}

// A record of no data gives 0 as the end of file does, but is removed, so that
// reading on gets past it.
TEST_F(TmfDamagedRecords, RecordsOfNoDataAreReadPast)
{
    make();
    std::string file = bytes();
    put_positions(file, {3, 4352, 4373, 4373});
    file += framed("") + framed("") + framed("end") + "\xFF\xFF";
    write_file(path, file);
    {
        const opened_file copier(path, 7);
        EXPECT_EQ(read_record(copier, 9), whole(""));
        EXPECT_EQ(read_record(copier, 9), whole(""));
        EXPECT_EQ(read_record(copier, 9), whole("end"));
    }
    const opened_file reader(path, 1);
    EXPECT_EQ(read_record(reader, 9), whole(""));
    EXPECT_EQ(read_record(reader, 9), whole(""));
    EXPECT_EQ(positions_of(reader), (positions{1, 4364, 4373, 4373}));
    EXPECT_EQ(read_record(reader, 9), whole("end"));
}

// High water that lies about the file: emptying brings it to 64 KiB from either
// side, or leaves it.
TEST_F(TmfDamagedRecords, HighWaterAloneDecidesAboutTheCut)
{
    const struct {
        int32_t high_water;
        size_t size;
        int32_t left;
    } rows[] = {
        {INT_MIN, 4363, INT_MIN}, {-1, 4363, -1},       {0, 4363, 0},
        {65536, 4363, 65536},     {65537, 65536, 4352}, {INT_MAX, 65536, 4352},
    };
    for (const auto &row : rows) {
        unlink(path.c_str());
        make({"one"});
        std::string file = bytes();
        put_positions(file, {1, 4352, 4361, row.high_water});
        write_file(path, file);
        const opened_file reader(path, 1);
        EXPECT_EQ(read_record(reader, 9), whole("one"));
        EXPECT_EQ(bytes_through(reader).size(), row.size);
        EXPECT_EQ(positions_of(reader), (positions{0, 4352, 4352, row.left}));
    }
}

// Any positions over any bytes: what is given stands behind the place of which
// the file speaks, within what it calls used.
TEST_F(TmfDamagedRecords, RandomPositionsGiveTheFilesOwnBytesOrACode)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto between = [&](int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(random);
    };
    const int edges[] = {INT_MIN, -1, 0, 255, 4351, 4352, 4358, 6000, 8999, 9000, 9001, INT_MAX};
    const auto place = [&] {
        return between(0, 2) == 0 ? edges[between(0, std::size(edges) - 1)] : between(4352, 9000);
    };
    make();
    std::string file = bytes();
    for (size_t at = file.size(); at < 9000; at++) // small numbers: lengths that fit
        file += static_cast<char>(between(0, 3) == 0 ? between(0, 255) : 0);
    write_file(path, file);
    int given = 0;
    for (const int mode : {1, 7}) {
        const opened_file reader(path, mode);
        file.replace(0, 256, bytes_through(reader), 0, 256);
        for (int round = 0; round < 5000 && !HasFailure(); round++) {
            const positions p = {between(0, 9) == 0 ? between(-3, 0) : 5, place(), place(), 0};
            put_positions(file, p);
            put_bytes(reader, 0, file.substr(0, 256));
            reader->copy_offset = p.read_offset;
            reader->copy_count = 0;
            const int room = between(0, 300);
            const record_read got = watched_read(
                room, [&](void *buf, int n) { return tmf_freadx(reader, buf, n, 0, 1); });
            const std::string after = bytes_through(reader);
            EXPECT_EQ(after.substr(4352, 4648), file.substr(4352));
            if (got.result <= 0) {
                EXPECT_TRUE(got.result == 0 || got.result == TMF_ESEEK_DATA ||
                            got.result == TMF_ESEEK_DATA_EOF || got.result == TMF_EREAD_DATA_EOF)
                    << got.result;
                continue;
            }
            given++;
            ASSERT_GE(p.read_offset, 4352) << p;
            const auto at = static_cast<size_t>(p.read_offset);
            ASSERT_LE(at + 4 + got.data.size(), file.size()) << p;
            EXPECT_EQ(got.data, file.substr(at + 4, got.data.size())) << p;
            const int length = static_cast<unsigned char>(file[at]) * 256 +
                               static_cast<unsigned char>(file[at + 1]);
            EXPECT_EQ(got.result, std::min(length - 6, room)) << p;
            if (p.write_offset > p.read_offset) {
                EXPECT_LE(p.read_offset + length, p.write_offset) << p;
            }
        }
    }
    EXPECT_GT(given, 500);
}
