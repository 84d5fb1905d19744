// Two implementations, or two builds of one, using the same message file at the
// same time: records in both directions, waiting and waking, exclusive use, copy
// mode, and the removal of users that died.
#include "msgfile/tmf.h"
#include "tests/msgpeer/pair_test.h"

#include <map>

// The records of one writer in hexadecimal.
static std::vector<std::string> written(const std::string &tag, int first, int count,
                                        const std::vector<size_t> &sizes)
{
    std::vector<std::string> records;
    for (int n = first; n < first + count; n++)
        records.push_back(
            hex_of(record_data(tag, n, sizes[static_cast<size_t>(n) % sizes.size()])));
    return records;
}

using ExchangeTest = PairTest;

TEST_P(ExchangeTest, RecordsOfOneByteToTheLongestPass)
{
    std::string list;
    std::vector<size_t> sizes = {1,    2,    3,    5,    6,     7,     127,   128,  249,  250,
                                 255,  256,  257,  1016, 1017,  1018,  1019,  1022, 1024, 1025,
                                 4096, 8191, 8192, 9999, 16384, 32755, 32760, 32761};
    for (const size_t size : sizes)
        list += std::to_string(size) + ",";
    const int count = static_cast<int>(sizes.size());
    participant writer(GetParam().a);
    participant reader(GetParam().b);
    ASSERT_EQ(writer.run("open w " + path("f") + " 0"), 0);
    ASSERT_EQ(reader.run("open r " + path("f") + " 1"), 0);
    EXPECT_EQ(writer.run("write w A 0 1 0"), TMF_ERECORD_SIZE);
    EXPECT_EQ(writer.run("write w A 0 1 32762"), TMF_ERECORD_SIZE);
    ASSERT_EQ(writer.run("write w A 0 " + std::to_string(count) + " " + list), count);
    ASSERT_EQ(reader.run("read r " + std::to_string(count)), count);
    EXPECT_EQ(reader.records(), written("A", 0, count, sizes));

    EXPECT_EQ(writer.run("close w"), 0);
    EXPECT_EQ(reader.run("read r 0"), 0);
    EXPECT_EQ(reader.run("close r"), 0);
    EXPECT_EQ(disagreements(path("f")), "");
}

TEST_P(ExchangeTest, AWriteWakesAReaderThatWaits)
{
    const std::string f = make("f");
    participant reader(GetParam().a);
    participant writer(GetParam().b);
    ASSERT_EQ(reader.run("open r " + f + " 1"), 0);
    for (int n = 0; n < 5; n++) {
        reader.start("read r 1 0 600");
        ASSERT_TRUE(comes_to_wait(f, 0));
        if (n == 0) {
            ASSERT_EQ(writer.run("open w " + f + " 0"), 0);
        }
        ASSERT_EQ(writer.run("write w A " + std::to_string(n) + " 1 20"), 1);
        ASSERT_EQ(reader.result(), 1);
        EXPECT_EQ(reader.records(), written("A", n, 1, {20}));
        EXPECT_FALSE(is_waiting(read_file(f), 0));
    }
}

TEST_P(ExchangeTest, AWritersCloseWakesAReaderThatWaits)
{
    const std::string f = make("f");
    participant reader(GetParam().a);
    participant writer(GetParam().b);
    ASSERT_EQ(reader.run("open r " + f + " 1"), 0);
    ASSERT_EQ(writer.run("open w " + f + " 0"), 0);
    ASSERT_EQ(writer.run("write w A 1 1 20"), 1);
    ASSERT_EQ(reader.run("read r 1"), 1);
    reader.start("read r 1 0 600");
    ASSERT_TRUE(comes_to_wait(f, 0));
    ASSERT_EQ(writer.run("close w"), 0);
    EXPECT_EQ(reader.result(), 0);
    EXPECT_EQ(host16_at(read_file(f), AT_NUM_WRITERS), 0);
}

// A reader's first wait, after which it can be woken at any time: until then the
// wait list names a port that it has not bound yet, and a datagram may get lost.
static void wait_once(participant &reader, participant &writer, const std::string &path, int slot)
{
    reader.start("read r 1 0 600");
    ASSERT_TRUE(comes_to_wait(path, slot));
    ASSERT_EQ(writer.run("write w first 0 1 8"), 1);
    ASSERT_EQ(reader.result(), 1);
}

TEST_P(ExchangeTest, BothWriteAndReadOverTwoFilesInTurns)
{
    const std::string f = make("f");
    const std::string g = make("g");
    participant a(GetParam().a);
    participant b(GetParam().b);
    ASSERT_EQ(a.run("open w " + f + " 0"), 0);
    ASSERT_EQ(b.run("open w " + g + " 0"), 0);
    ASSERT_EQ(a.run("open r " + g + " 1"), 0);
    ASSERT_EQ(b.run("open r " + f + " 1"), 0);
    ASSERT_NO_FATAL_FAILURE(wait_once(a, b, g, 0));
    ASSERT_NO_FATAL_FAILURE(wait_once(b, a, f, 0));
    for (const std::string burst : {"1", "7"}) {
        a.start("swap w r A 60 " + burst + " 16,40,1100");
        b.start("swap w r B 60 " + burst + " 33");
        ASSERT_EQ(a.result(), 60);
        ASSERT_EQ(b.result(), 60);
        EXPECT_EQ(a.records(), written("B", 0, 60, {33}));
        EXPECT_EQ(b.records(), written("A", 0, 60, {16, 40, 1100}));
    }
    for (participant *p : {&a, &b}) {
        EXPECT_EQ(p->run("close r"), 0);
        EXPECT_EQ(p->run("close w"), 0);
    }
    EXPECT_EQ(disagreements(f) + disagreements(g), "");
}

TEST_P(ExchangeTest, OneEchoesWhatTheOtherWrites)
{
    const std::string f = make("f");
    const std::string g = make("g");
    participant a(GetParam().a);
    participant b(GetParam().b);
    ASSERT_EQ(a.run("open w " + f + " 0"), 0);
    ASSERT_EQ(a.run("open r " + g + " 1"), 0);
    ASSERT_EQ(b.run("open r " + f + " 1"), 0);
    ASSERT_EQ(b.run("open w " + g + " 0"), 0);
    ASSERT_NO_FATAL_FAILURE(wait_once(a, b, g, 0));
    b.start("echo r w 150");
    ASSERT_TRUE(comes_to_wait(f, 0));
    ASSERT_EQ(a.run("write w A 0 150 16,300,2000,5"), 150);
    ASSERT_EQ(a.run("read r 150 0 600"), 150);
    EXPECT_EQ(a.records(), written("A", 0, 150, {16, 300, 2000, 5}));
    EXPECT_EQ(b.result(), 150);
}

// Readers of one file share its records out among them: each finds every
// writer's in order, and together they have every record once.
TEST_P(ExchangeTest, BothWriteAndReadOneFileAtOnce)
{
    constexpr int COUNT = 300;
    const std::vector<size_t> sizes = {16, 40, 1100, 23};
    const std::string f = make("f");
    participant reader_a(GetParam().a);
    participant reader_b(GetParam().b);
    participant writer_a(GetParam().a);
    participant writer_b(GetParam().b);
    ASSERT_EQ(reader_a.run("open r " + f + " 1"), 0);
    ASSERT_EQ(reader_b.run("open r " + f + " 1"), 0);
    ASSERT_EQ(writer_a.run("open w " + f + " 0"), 0);
    ASSERT_EQ(writer_b.run("open w " + f + " 0"), 0);
    ASSERT_NO_FATAL_FAILURE(wait_once(reader_a, writer_b, f, 0));
    ASSERT_NO_FATAL_FAILURE(wait_once(reader_b, writer_a, f, 1));

    reader_a.start("read r 0 0 600");
    reader_b.start("read r 0 0 600");
    writer_a.start("write w A 0 300 16,40,1100,23");
    writer_b.start("write w B 0 300 16,40,1100,23");
    ASSERT_EQ(writer_a.result(), COUNT);
    ASSERT_EQ(writer_b.result(), COUNT);
    ASSERT_EQ(writer_a.run("close w"), 0);
    ASSERT_EQ(writer_b.run("close w"), 0);
    EXPECT_EQ(reader_a.result() + reader_b.result(), 2 * COUNT);

    std::map<std::string, std::pair<char, int>> missing; // writer and number of each record
    for (const char tag : {'A', 'B'}) {
        int n = 0;
        for (const std::string &record : written(std::string(1, tag), 0, COUNT, sizes))
            missing[record] = {tag, n++};
    }
    for (const participant *reader : {&reader_a, &reader_b}) {
        std::map<char, int> newest = {{'A', -1}, {'B', -1}};
        for (const std::string &record : reader->records()) {
            const auto it = missing.find(record);
            ASSERT_NE(it, missing.end()) << "doubled or changed: " << record;
            const auto [tag, n] = it->second;
            EXPECT_GT(n, newest[tag]) << tag;
            newest[tag] = n;
            missing.erase(it);
        }
    }
    EXPECT_TRUE(missing.empty());
    EXPECT_EQ(reader_a.run("close r"), 0);
    EXPECT_EQ(reader_b.run("close r"), 0);
    EXPECT_EQ(disagreements(f), "");
}

TEST_P(ExchangeTest, AReaderKilledWhileItWaitsIsRemovedByTheNextUser)
{
    const std::string f = make("f");
    participant reader(GetParam().a);
    participant writer(GetParam().b);
    ASSERT_EQ(reader.run("open r " + f + " 3"), 0);
    reader.start("read r 1 0 600");
    ASSERT_TRUE(comes_to_wait(f, 0));
    std::string file = read_file(f);
    EXPECT_EQ(host32_at(file, AT_READER_SLOTS), reader.pid());
    EXPECT_EQ(host16_at(file, AT_NUM_READERS), 1);
    EXPECT_EQ(be16_at(file, AT_READER_MAP), 0x0100);

    reader.kill();
    ASSERT_EQ(writer.run("open w " + f + " 0"), 0);
    file = read_file(f);
    EXPECT_EQ(host32_at(file, AT_READER_SLOTS), 0);
    EXPECT_EQ(host16_at(file, AT_NUM_READERS), 0);
    EXPECT_EQ(be16_at(file, AT_READER_MAP), 0);
    EXPECT_EQ(be16_at(file, AT_WAIT_LIST), 0);

    participant next(GetParam().a); // the exclusive use has ended too
    EXPECT_EQ(next.run("open r " + f + " 3"), 0);
}

TEST_P(ExchangeTest, AKilledWriterIsNoReasonToWait)
{
    const std::string f = make("f");
    participant writer(GetParam().a);
    participant reader(GetParam().b);
    ASSERT_EQ(writer.run("open w " + f + " 2"), 0);
    ASSERT_EQ(writer.run("write w A 1 2 20"), 2);
    ASSERT_EQ(reader.run("open r " + f + " 1"), 0);
    ASSERT_EQ(reader.run("read r 1"), 1);
    EXPECT_EQ(host32_at(read_file(f), AT_WRITER_SLOTS), writer.pid());

    writer.kill();
    ASSERT_EQ(reader.run("info r"), 0);
    EXPECT_EQ(reader.info(), "info 1 1 0 4404"); // two records of 26 bytes behind 4352
    const std::string file = read_file(f);
    EXPECT_EQ(host32_at(file, AT_WRITER_SLOTS), 0);
    EXPECT_EQ(be16_at(file, AT_WRITER_MAP), 0);
    EXPECT_EQ(reader.run("read r 0"), 1);
    EXPECT_EQ(reader.records(), written("A", 2, 1, {20}));
}

TEST_P(ExchangeTest, ExclusiveUseIsRespected)
{
    struct row {
        const char *first;
        const char *second;
        int result;
    };
    static const row rows[] = {
        {"3", "1", TMF_EREADER_EXCLUSIVE}, // a reader has the file exclusively
        {"3", "3", TMF_EREADER_EXCLUSIVE},
        {"7", "1", TMF_EREADER_EXCLUSIVE},
        {"1", "3", TMF_EREADER_PRESENT}, // there is a reader
        {"1", "7", TMF_EREADER_PRESENT},
        {"2", "0", TMF_EWRITER_EXCLUSIVE}, // a writer has the file exclusively
        {"2", "2", TMF_EWRITER_EXCLUSIVE},
        {"0", "2", TMF_EWRITER_PRESENT}, // there is a writer
        {"3", "0", 0},
        {"3", "2", 0},
        {"2", "1", 0},
        {"2", "7", 0},
        {"1", "1", 0},
        {"0", "0", 0},
        {"1", "4", TMF_ECOPYMODE}, // copy mode wants 1 and 2
        {"1", "5", TMF_ECOPYMODE},
        {"1", "6", TMF_ECOPYMODE},
    };
    const std::string f = make("f");
    participant a(GetParam().a);
    participant b(GetParam().b);
    for (const row &r : rows) {
        SCOPED_TRACE(std::string(r.first) + " beside " + r.second);
        ASSERT_EQ(a.run("open a " + f + " " + r.first), 0);
        const std::string before = read_file(f);
        EXPECT_EQ(b.run("open b " + f + " " + r.second), r.result);
        if (r.result == 0) {
            EXPECT_EQ(b.run("close b"), 0);
        }
        EXPECT_EQ(read_file(f), before);
        EXPECT_EQ(a.run("close a"), 0);
        if (r.result != 0 && r.result != TMF_ECOPYMODE) {
            EXPECT_EQ(b.run("open b " + f + " " + r.second), 0);
            EXPECT_EQ(b.run("close b"), 0);
        }
    }
}

TEST_P(ExchangeTest, CopyModeFollowsAWriterAndRemovesNothing)
{
    const std::string f = make("f");
    participant writer(GetParam().a);
    participant reader(GetParam().b);
    ASSERT_EQ(writer.run("open w " + f + " 0"), 0);
    ASSERT_EQ(writer.run("write w A 0 3 20,3000"), 3);
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(reader.run("open r " + f + " 7"), 0);
        EXPECT_EQ(reader.run("read r 0"), 3);
        EXPECT_EQ(reader.records(), written("A", 0, 3, {20, 3000}));
        EXPECT_EQ(reader.run("read r 0"), 0); // at once, though there is a writer
        if (round == 0) {
            EXPECT_EQ(reader.run("close r"), 0);
        }
    }
    ASSERT_EQ(writer.run("write w A 3 1 20,3000"), 1);
    EXPECT_EQ(reader.run("read r 0"), 1);
    EXPECT_EQ(reader.records(), written("A", 3, 1, {20, 3000}));
    EXPECT_EQ(host32_at(read_file(f), AT_RECORD_COUNT), 4);
}

INSTANTIATE_TEST_SUITE_P(Peers, ExchangeTest,
                         testing::Values(pair_of{"PythonAndLibrary", peer::python, peer::library},
                                         pair_of{"LibraryAndPython", peer::library, peer::python}),
                         pair_name);
INSTANTIATE_TEST_SUITE_P(Words, ExchangeTest,
                         testing::Values(pair_of{"Word32And64", peer::library32, peer::library},
                                         pair_of{"Word64And32", peer::library, peer::library32}),
                         pair_name);
INSTANTIATE_TEST_SUITE_P(BigEndian, ExchangeTest,
                         testing::Values(pair_of{"PythonAndS390x", peer::python_big, peer::s390x},
                                         pair_of{"S390xAndPython", peer::s390x, peer::python_big}),
                         pair_name);
