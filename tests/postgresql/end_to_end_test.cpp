// The order-entry database live: people and programs work in it, the bridge and Kestro
// follow, and what was captured gives the database's tables.
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;
using testing::IsEmpty;

static const std::string example = KESTRO_SOURCE_DIR "/examples/orders";
static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";

class EndToEndTest : public BridgeTest {
  protected:
    void compare(replay &state)
    {
        replay_compare(state, dir.file("contents.csv"));
        state.errors.resize(std::min<size_t>(state.errors.size(), 5));
        EXPECT_THAT(state.errors, IsEmpty());
    }
};

TEST_F(EndToEndTest, CapturesReplayedGiveTheDatabasesTables)
{
    write_file(dir.file("fwutil.cfg"), read_file(example + "/fwutil.cfg"));
    sql(read_file(example + "/orders-schema.sql"));
    ASSERT_NO_FATAL_FAILURE(begin_following());
    background capture;
    capture.start({kestro, "-cfg", "fwutil.cfg", "-stat", "orders.status", "-ascii", "all.txt",
                   "-exthdr", "-yyyy", "-recnum", "all.msg"},
                  options, dir.file("kestro"));

    const run_result work =
        run_program({"python3", example + "/orders-workload.py",
                     "host=" + value("SHOW unix_socket_directories") + " dbname=" + database, "1"},
                    options);
    ASSERT_EQ(work.status, 0) << work.err;
    const std::string end = value("SELECT pg_current_wal_flush_lsn()");
    ASSERT_TRUE(poll_until([&] {
        return value("SELECT '" + status_member("logged_lsn") + "'::pg_lsn >= '" + end + "'") ==
               "t";
    })) << bridge.err();
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM) << bridge.err();
    const std::string changes = status_member("changes");
    const auto has_all = [&] {
        const run_result info =
            run_program({KESTRO_BUILD_DIR "/bin/tmf", "info", "--json", "all.msg"}, options);
        return json_member(info.out, "records") == changes;
    };
    ASSERT_TRUE(poll_until(has_all)) << capture.err();
    EXPECT_EQ(capture.end(SIGTERM), 0) << capture.err();
    EXPECT_THAT(capture.out(), HasSubstr(changes + " records written to capture file all.msg\n"));

    pg_client client = connect();
    write_file(dir.file("contents.csv"), pg_contents(client, "'depot', 'sales'"));
    replay text = replay_open(dir.file("fwutil.cfg"));
    replay_file(text, dir.file("all.txt"));
    compare(text);
    replay messages = replay_open(dir.file("fwutil.cfg"));
    for (const std::string &record : message_records(dir.file("all.msg")))
        replay_message(messages, record);
    compare(messages);
}
