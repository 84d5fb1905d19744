// "fwlog postgresql" and a server that answers with anything but what it was asked for, at each
// step: the run ends with an error, or makes its connection anew; no crash, no endless wait,
// nothing wrong in the log.  What it says of such an answer moves no terminal.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/postgresql/pg_proxy.h"

#include <iostream>
#include <random>

using namespace std::string_literals;
using testing::HasSubstr;
using testing::Not;

class BridgeHostileServerTest : public LedgerTest {
  protected:
    void SetUp() override
    {
        LedgerTest::SetUp();
        if (server == nullptr)
            return;
        proxy = std::make_unique<pg_proxy>(server->socket());
        insert(1);
        insert(2);
    }
    void TearDown() override
    {
        LedgerTest::TearDown();
        proxy.reset();
    }

    std::vector<std::string> by_proxy(std::vector<std::string> more) const
    {
        more.insert(more.end(), {"--conninfo", proxy->conninfo(database), "--timeout", "1"});
        return more;
    }

    // Without what runs before have left, here and in the server.
    void begin_anew() const
    {
        ASSERT_TRUE(poll_until([&] {
            sql("SELECT pg_drop_replication_slot(slot_name) FROM pg_replication_slots WHERE NOT "
                "active");
            return value("SELECT count(*) FROM pg_replication_slots") == "0";
        }));
        std::filesystem::remove_all(dir.file("log"));
        std::filesystem::create_directory(dir.file("log"));
    }

    void expect_no_harm(const std::string &request, const std::string &given,
                        pg_proxy::behind then);

    std::unique_ptr<pg_proxy> proxy;
};

// A message of the server: kind, length, contents.
static std::string message(char kind, const std::string &contents, int64_t length = -1)
{
    const auto n =
        static_cast<uint32_t>(length < 0 ? static_cast<int64_t>(contents.size()) + 4 : length);
    std::string out(1, kind);
    for (int shift = 24; shift >= 0; shift -= 8)
        out += static_cast<char>(n >> shift & 0xFF);
    return out + contents;
}

static const std::string ready = message('Z', "I");
static const std::string evil = "%s%n%n\x1b]0;title\x07\x1b[2J%999999999d";

struct answer {
    const char *name;
    std::string bytes;
};

static const std::vector<answer> answers = {
    {"another protocol", "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n"},
    {"zeros", std::string(5000, '\0')},
    {"ones", std::string(5000, '\xFF')},
    {"a row of 2 GiB", message('D', std::string(1000, 'x'), 0x7FFFFFFF)},
    {"copied data of 2 GiB", message('d', std::string(1000, 'x'), 0x7FFFFFFF)},
    {"a negative length", message('D', "x", 0x80000001) + ready},
    {"a length of nothing", message('T', "", 0) + message('D', "", 3) + ready},
    {"65535 columns that are not there", message('T', "\xFF\xFF"s) + ready},
    {"a row before its columns", message('D', "\0\1\0\0\0\1x"s) + ready},
    {"a value longer than its row",
     message('T', "\0\1x\0\0\0\0\0\0\0\0\0\0\x19\xFF\xFF\xFF\xFF\xFF\xFF\0\0"s) +
         message('D', "\0\1\x7F\xFF\xFF\xFFx"s) + message('C', "SELECT 1\0"s) + ready},
    {"a value of less than nothing",
     message('T', "\0\1x\0\0\0\0\0\0\0\0\0\0\x19\xFF\xFF\xFF\xFF\xFF\xFF\0\0"s) +
         message('D', "\0\1\x80\0\0\0x"s) + message('C', "SELECT 1\0"s) + ready},
    {"more rows and columns than were asked for",
     message('T', "\0\3a\0\0\0\0\0\0\0\0\0\0\x19\xFF\xFF\xFF\xFF\xFF\xFF\0\0"
                  "b\0\0\0\0\0\0\0\0\0\0\x19\xFF\xFF\xFF\xFF\xFF\xFF\0\0"
                  "c\0\0\0\0\0\0\0\0\0\0\x19\xFF\xFF\xFF\xFF\xFF\xFF\0\0"s) +
         message('D', "\0\3\xFF\xFF\xFF\xFF\0\0\0\0\0\0\0\2%n"s) +
         message('D', "\0\3\0\0\0\2%s\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s) +
         message('C', "SELECT 2\0"s) + ready},
    {"an error of formats and controls",
     message('E', "SERROR\0C%s%n\0M"s + evil + "\0D"s + evil + "\0H"s + evil + "\0\0"s) + ready},
    {"an error without an end", message('E', "SERROR\0M"s + evil)},
    {"copying in", message('G', "\0\0\0"s)},
    {"copying of less than no columns",
     message('H', "\0\xFF\xFF"s) + message('d', "") + message('d', std::string(100, '\0'))},
    {"a stream of nothing", message('W', "\0\0\0"s) + message('d', "") + message('d', "w") +
                                message('d', "k") + message('d', "\0"s)},
    {"a stream of hostile messages",
     message('W', "\0\0\0"s) + message('d', "w" + std::string(24, '\0') + "I\0\0\x40\1N\xFF\xFF"s)},
    {"a stream that goes back", message('W', "\0\0\0"s) +
                                    message('d', "k" + std::string(16, '\0') + "\1") +
                                    message('d', "k" + std::string(16, '\xFF') + "\1")},
};

// What is sent at each step, from the first connection on.
static const std::vector<std::string> requests = {
    "user", // the connection itself
    "SET datestyle",
    "pg_is_in_recovery()",
    "IDENTIFY_SYSTEM",
    "FROM pg_publication WHERE",
    "CREATE PUBLICATION",
    "FROM pg_replication_slots",
    "CREATE_REPLICATION_SLOT",
    "txid_current_snapshot(), pg_current",
    "t.relreplident, t.filter",
    "a.attname, a.atttypid",
    "COPY (SELECT",
    "START_REPLICATION",
};

// A log with all rows is made with a server that gives an answer of its own to a request, or the
// run fails and says why.
void BridgeHostileServerTest::expect_no_harm(const std::string &request, const std::string &given,
                                             pg_proxy::behind then)
{
    ASSERT_NO_FATAL_FAILURE(begin_anew());
    sql("DROP PUBLICATION IF EXISTS " + database);
    proxy->answer_with(request, given, then);
    const run_result result = run_bridge(by_proxy({"--create", "--snapshot", "--once"}));
    EXPECT_TRUE(proxy->happened());
    EXPECT_TRUE(result.status == 0 || result.status == 1) << result.status << result.err;
    EXPECT_TRUE(result.status == 0 || !result.err.empty()) << "fails without a word";
    for (const char c : result.out + result.err)
        ASSERT_TRUE(static_cast<unsigned char>(c) >= ' ' || c == '\n') << result.err;
    if (result.status == 0)
        expect_log_equals_tables();
}

// A few answers at some step in each run of the tests; with KESTRO_HOSTILE_SERVER=all each at every
// one.
TEST_F(BridgeHostileServerTest, AnswersWithAnythingAtAnyStep)
{
    const unsigned seed = std::random_device{}();
    std::cout << "seed " << seed << "\n";
    std::minstd_rand random(seed);
    const size_t each = answers.size() * requests.size();
    const size_t runs = getenv("KESTRO_HOSTILE_SERVER") != nullptr ? each : 5;
    for (size_t n = 0; n < runs; n++) {
        const size_t chosen = runs == each ? n : random() % each;
        const answer &given = answers[chosen % answers.size()];
        const std::string &request = requests[chosen / answers.size()];
        const bool hangs_up = random() % 2 == 0;
        SCOPED_TRACE("seed " + std::to_string(seed) + ", " + request + ": " + given.name +
                     (hangs_up ? ", then the end" : ""));
        expect_no_harm(request, given.bytes,
                       hangs_up ? pg_proxy::behind::end_of_connection : pg_proxy::behind::silence);
    }
    std::cout << runs << " answers\n";
    ASSERT_NO_FATAL_FAILURE(begin_anew());
    const run_result result = run_bridge(by_proxy({"--create", "--snapshot", "--once"}));
    EXPECT_EQ(result.status, 0) << result.err;
    expect_log_equals_tables();
}

// It asked for no rows to be sent to it, and libpq gives such an answer for ever.
TEST_F(BridgeHostileServerTest, CopiesInPlaceOfAnAnswer)
{
    for (const char kind : {'G', 'H', 'W'}) {
        const std::string copy = message(kind, "\0\0\0"s);
        for (const char *request : {"FROM pg_publication WHERE", "t.relreplident, t.filter"}) {
            SCOPED_TRACE(request + " "s + kind);
            expect_no_harm(request, copy, pg_proxy::behind::end_of_connection);
        }
    }
    expect_no_harm("IDENTIFY_SYSTEM", answers[12].bytes + message('G', "\0\0\0"s),
                   pg_proxy::behind::silence);
}

// A table of which nothing is said is not an empty one, though the server goes on as if it had
// answered.
TEST_F(BridgeHostileServerTest, LeavesOutTheRows)
{
    const std::string in_transaction = message('Z', "T");
    const std::string no_row = message('H', "\0\0\1\0\0"s) + message('c', "");
    for (const std::string &given :
         {in_transaction, message('C', "COPY 0\0"s) + in_transaction,
          message('I', "") + in_transaction, no_row + message('C', "COPY 3\0"s) + in_transaction})
        expect_no_harm("COPY (SELECT", given, pg_proxy::behind::the_server);
}

// No result is not one without rows.
TEST_F(BridgeHostileServerTest, AnswersWithNothingAndGoesOn)
{
    for (const char *const request :
         {"SET datestyle", "pg_is_in_recovery()", "FROM pg_publication WHERE",
          "FROM pg_replication_slots", "txid_current_snapshot(), pg_current",
          "t.relreplident, t.filter", "a.attname, a.atttypid"})
        expect_no_harm(request, ready, pg_proxy::behind::the_server);
}

// It is not silence, so no limit of time ends it; a signal does, and memory that is not there.
TEST_F(BridgeHostileServerTest, NeverStopsToSend)
{
    const std::string columns =
        message('T', "\0\1x\0\0\0\0\0\0\0\0\0\0\x19\xFF\xFF\xFF\xFF\xFF\xFF\0\0"s);
    const std::string row = message('D', "\0\1\0\0\x03\xE8"s + std::string(1000, 'x'));
    const struct {
        const char *request;
        std::string bytes;
    } rows[] = {
        {"IDENTIFY_SYSTEM", message('N', "SNOTICE\0C00000\0M"s + evil + "\0\0"s)},
        {"IDENTIFY_SYSTEM", message('S', "application_name\0"s + evil + "\0"s)},
        {"FROM pg_publication WHERE", columns + row},
        {"START_REPLICATION", message('d', std::string(60'000, 'x'), 0x7FFFFFFF)},
        {"START_REPLICATION",
         message('W', "\0\0\0"s) + message('d', "k" + std::string(16, '\0') + "\1")},
    };
    constexpr size_t MUCH = 4'000'000;
    for (const auto &r : rows) {
        SCOPED_TRACE(r.request + ": "s + r.bytes[0]);
        ASSERT_NO_FATAL_FAILURE(begin_anew());
        proxy->answer_with(r.request, r.bytes, pg_proxy::behind::the_same_for_ever);
        bridge.start(bridge_argv(by_proxy({"--create"})), options, dir.file("bridge"));
        ASSERT_TRUE(poll_until([&] { return proxy->happened(); })) << bridge.err();
        // It takes all that comes, or gives the connection up and has another one.
        EXPECT_TRUE(poll_until([&] {
            return proxy->poured() > MUCH || !bridge.running() ||
                   status_member("state") == "streaming" ||
                   bridge.err().find("; trying again") != std::string::npos;
        })) << proxy->poured()
            << bridge.err();
        const int status = bridge.end(SIGTERM);
        EXPECT_TRUE(status == 128 + SIGTERM || status == 1) << status << bridge.err();
        EXPECT_THAT(bridge.err(), Not(HasSubstr("\x1b")));
    }
}
