// The order-entry database live: people and programs work in it, the bridge and Kestro
// follow, and what was captured gives the database's tables.
#include "msgfile/tmf.h"
#include "tests/postgresql/bridge_fixture.h"

using testing::HasSubstr;
using testing::IsEmpty;

static const std::string example = KESTRO_SOURCE_DIR "/examples/orders";
static const std::string kestro = KESTRO_BUILD_DIR "/bin/Kestro";
#ifdef KESTRO_SANITIZED
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif
static const std::string capread = KESTRO_BUILD_DIR "/bin/capread";

class EndToEndTest : public BridgeTest {
  protected:
    // Lines of changes that a follower has printed.
    static long changes_in(const std::string &file)
    {
        const std::string text = read_file(file);
        long lines = 0;
        for (size_t at = 0; (at = text.find("{\"op\":", at)) != std::string::npos; at++)
            lines++;
        return lines;
    }

    // What capread has printed while the file was written is what the log has.
    void compare_data(const std::string &printed)
    {
        if (run_program({"jq", "--version"}).status != 0)
            return;
        const std::string filter = " | jq -S -c --argjson exthdr true --argjson recnum true "
                                   "--argjson ascii false -f " KESTRO_SOURCE_DIR
                                   "/tests/tools/capread/as_the_log.jq --argjson from_log ";
        const run_result result =
            run_program({"sh", "-c",
                         KESTRO_BUILD_DIR "/bin/fwlog dump --json --numbers text" + filter +
                             "true > wanted && cat " + printed + filter + "false | cmp - wanted"},
                        options);
        EXPECT_EQ(result.status, 0) << result.out << result.err;
    }

    run_result tool(const std::string &command) const
    {
        return run_program({"sh", "-c", "PATH=" KESTRO_BUILD_DIR "/bin:$PATH; " + command},
                           options);
    }

    // What the tools make of a message file that was captured: sound, and the same
    // records through pipes, by salvage and from Python.
    void compare_tools(const std::string &file, const std::string &records)
    {
        run_result result = tool("tmf verify " + file);
        EXPECT_EQ(result.status, 0) << result.out << result.err;
        result = tool("tmf read --keep --framed " + file + " > framed && tmf salvage " + file +
                      " saved.msg && tmf read --framed saved.msg | cmp - framed &&"
                      " tmf write --framed copy.msg < framed &&"
                      " tmf read --keep --framed copy.msg | cmp - framed");
        EXPECT_EQ(result.status, 0) << result.out << result.err;
        if (sanitized) // the library would need their runtime
            return;
        result = tool("PYTHONPATH=" KESTRO_SOURCE_DIR "/python LIBTMF=" KESTRO_BUILD_DIR
                      "/lib/libtmf.so python3 -c 'import tmf; print(len(list(tmf.Reader(\"" +
                      file + "\", keep=True))))'");
        EXPECT_EQ(result.out, records + "\n") << result.err;
    }

    // What a monitor is told: the state of the run's file, and all that is registered.
    void expect_health(const std::string &what)
    {
        const run_result one = tool("fwlog health -cfg fwutil.cfg --state run.json");
        EXPECT_EQ(one.status, 0) << one.out << one.err;
        EXPECT_THAT(one.out, HasSubstr("OK: run.json: " + what));
        const run_result reader = tool("fwlog health -cfg fwutil.cfg --state orders.status");
        EXPECT_EQ(reader.status, 0) << reader.out << reader.err;
    }

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
    run_result told = tool("fwlog readers -cfg fwutil.cfg --add orders.status");
    ASSERT_EQ(told.status, 0) << told.err;
    background capture;
    run_setup with_status = options;
    with_status.env["KESTRO_STATUS"] = "run.json";
    capture.start({kestro, "-cfg", "fwutil.cfg", "-stat", "orders.status", "-ascii", "all.txt",
                   "-exthdr", "-yyyy", "-recnum", "all.msg"},
                  with_status, dir.file("kestro"));
    ASSERT_EQ(tmf_fclose(tmf_fopen(dir.file("all.msg").c_str(), 0)), 0); // no records yet
    background reader;
    reader.start({capread, "-cfg", "fwutil.cfg", "--numbers", "text", "-exthdr", "-yyyy", "-recnum",
                  "--follow", "all.msg"},
                 options, dir.file("reader"));

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
    ASSERT_TRUE(poll_until([&] {
        return json_member(read_file(dir.file("run.json")), "state") == "waiting";
    })) << read_file(dir.file("run.json"));
    expect_health("idle");
    told = tool("fwlog info -cfg fwutil.cfg --dset sales.orders");
    EXPECT_EQ(told.status, 1);
    EXPECT_THAT(told.out, HasSubstr("sales:orders"));
    EXPECT_EQ(capture.end(SIGTERM), 0) << capture.err();
    EXPECT_TRUE(poll_until([&] {
        return !reader.running() || changes_in(dir.file("reader.out")) == stol(changes);
    })) << changes_in(dir.file("reader.out"));
    EXPECT_EQ(reader.end(SIGTERM), 128 + SIGTERM) << reader.err();
    compare_data(dir.file("reader.out"));
    compare_tools("all.msg", changes);
    told = tool("fwlog readers -cfg fwutil.cfg --json");
    EXPECT_THAT(told.out, HasSubstr("orders.status")) << told.err;
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
