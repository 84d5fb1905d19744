// A storm: programs that write, capture, take and follow work together beside a server, and are
// killed, stopped, starved of disk and cut off from it at random.  Then it is calm, all of them
// come to the end by themselves, and each record is accounted for.
//
// KESTRO_STORM_SECONDS: how long it lasts; KESTRO_TEST_SEED: which one.
#include "tests/postgresql/bridge_fixture.h"
#include "tests/postgresql/load_client.h"
#include "tests/storm/storm_archive.h"
#include "tests/storm/storm_books.h"
#include "tests/storm/storm_proxy.h"
#include "tests/storm/storm_scene.h"

#include <cinttypes>
#include <iostream>
#include <numeric>
#include <random>

#ifdef KESTRO_SANITIZED
constexpr int USUAL_SECONDS = 8;
#else
constexpr int USUAL_SECONDS = 30;
#endif
constexpr int CALM_SECONDS = 180; // at the most, on a machine with much else to do

static const std::string bin = KESTRO_BUILD_DIR "/bin/";

static int number_from(const char *name, int usual)
{
    const char *text = getenv(name);
    return text != nullptr ? atoi(text) : usual;
}

using std::chrono::milliseconds;

class StormTest : public BridgeTest {
  protected:
    void SetUp() override
    {
        BridgeTest::SetUp();
        if (server == nullptr)
            return;
        disk = std::make_unique<storm_disk>(dir.file("disk"));
        proxy = std::make_unique<storm_proxy>(server->socket());
        const std::string bridge_conninfo = "host=127.0.0.1 port=" + std::to_string(proxy->port()) +
                                            " user=postgres dbname=" + database +
                                            " sslmode=disable gssencmode=disable";
        storm_set(scene, *disk, dir.path(), {bridge_conninfo, conninfo(), database, seed},
                  std::string(ledger_cfg) + audit_cfg);
        options.directory = disk->path();
        (void)board(); // whole before the first limit on how far a file may grow
        sql(std::string(ledger_sql) + audit_sql);
        archive = std::make_unique<storm_archive>(disk->file("log"));
        ASSERT_EQ(catch_up({"--create"}).status, 0);
        sql("INSERT INTO load.ledger VALUES (-1, 0, 1, 'first', NULL);"
            "INSERT INTO load.audit (client) VALUES (0)");
        ASSERT_EQ(catch_up().status, 0);
        const run_result layouts = fwlog({"layout", "--json"});
        ASSERT_EQ(layouts.status, 0) << layouts.err;
        write_file(disk->file("layouts.json"), layouts.out);
        for (const char *status : {"kept.status", "queue.status", "lines.status", "tail.state"})
            ASSERT_EQ(fwlog({"readers", "--add", status}).status, 0);
    }

    void TearDown() override
    {
        if (frozen)
            thaw_server();
        for (storm_actor &actor : scene.actors)
            storm_end(actor, SIGKILL);
        proxy.reset();
        archive.reset();
        BridgeTest::TearDown();
        disk.reset();
    }

    unsigned below(unsigned limit)
    {
        return static_cast<unsigned>(random() % limit);
    }
    milliseconds some_ms(unsigned least, unsigned most)
    {
        return milliseconds(least + below(most - least));
    }
    storm_actor &any_actor()
    {
        return *std::next(scene.actors.begin(), below(static_cast<unsigned>(scene.actors.size())));
    }

    // ---- what happens

    void kill_one()
    {
        storm_actor &actor = any_actor();
        if (!storm_runs(actor))
            return;
        storm_end(actor, SIGKILL);
        for (int i = 0; i < STORM_READERS; i++)
            if (actor.name == "reader" + std::to_string(i) && board().in_read[i].exchange(false))
                in_hand++;
        events["SIGKILL"]++;
    }
    void end_one()
    {
        any_actor().process.signal(SIGTERM);
        events["SIGTERM"]++;
    }
    void stop_one()
    {
        storm_stop(any_actor(), some_ms(20, 1500));
        events["SIGSTOP"]++;
    }
    void limit_one()
    {
        // A limit below the first page would keep a program from changing what it has.
        storm_limit(any_actor(), 8192 + below(below(2) == 0 ? 20000 : 400000), some_ms(50, 1000));
        events["file size limit"]++;
    }
    void starve_all()
    {
        if (!disk->can_starve())
            return;
        disk->starve(below(2) == 0 ? 0 : below(300000));
        fed_again = storm_clock::now() + some_ms(50, 1500);
        events["disk full"]++;
    }
    void crash_server()
    {
        if (frozen)
            thaw_server(); // it could not end otherwise
        server->crash();
        server->start();
        events["server crashed"]++;
    }
    void thaw_server()
    {
        server->thaw();
        frozen = false;
    }
    void freeze_server()
    {
        server->freeze();
        thawed = storm_clock::now() + some_ms(100, 3000);
        frozen = true;
        events["server stopped"]++;
    }
    void slow_network()
    {
        proxy->delay(static_cast<int>(1 + below(60)));
        quick_again = storm_clock::now() + some_ms(100, 2000);
        events["network slow"]++;
    }
    void stall_network()
    {
        proxy->stall(true);
        goes_through = storm_clock::now() + some_ms(100, 5000);
        events["network stalled"]++;
    }
    void reset_network()
    {
        proxy->reset_behind(static_cast<int>(below(3) == 0 ? 0 : below(30000)));
        events["network reset"]++;
    }
    void rotate()
    {
        if (storm_rotate(scene, *disk))
            events["text file moved"]++;
    }

    void happen()
    {
        struct kind {
            unsigned often;
            void (StormTest::*what)();
        };
        static const kind kinds[] = {
            {30, &StormTest::kill_one},     {12, &StormTest::end_one},
            {14, &StormTest::stop_one},     {8, &StormTest::limit_one},
            {3, &StormTest::starve_all},    {1, &StormTest::crash_server},
            {2, &StormTest::freeze_server}, {4, &StormTest::slow_network},
            {3, &StormTest::stall_network}, {6, &StormTest::reset_network},
            {8, &StormTest::rotate},
        };
        unsigned all = 0;
        for (const kind &one : kinds)
            all += one.often;
        unsigned chosen = below(all);
        for (const kind &one : kinds) {
            if (chosen < one.often)
                return (this->*one.what)();
            chosen -= one.often;
        }
    }

    // What has had its time is as it was.
    void pass_by(bool all)
    {
        const auto now = storm_clock::now();
        if (all || now >= fed_again)
            disk->feed();
        if (all || now >= quick_again)
            proxy->delay(0);
        if (all || now >= goes_through)
            proxy->stall(false);
        if (frozen && (all || now >= thawed))
            thaw_server();
        for (storm_actor &actor : scene.actors) {
            if (all)
                storm_calm(actor);
            storm_tend(actor, random);
        }
    }

    void rage(int seconds)
    {
        const auto end = storm_clock::now() + std::chrono::seconds(seconds);
        auto next = storm_clock::now();
        while (storm_clock::now() < end) {
            pass_by(false);
            if (storm_clock::now() >= next) {
                happen();
                next = storm_clock::now() + some_ms(5, 250);
            }
            usleep(5000);
        }
    }

    // ---- the end

    mail_board &board()
    {
        if (seen_board == nullptr)
            seen_board = std::make_unique<shared_board>(scene.board);
        return *seen_board->operator->();
    }

    bool holds(const std::string &file, const std::string &text) const
    {
        return read_file(file).find(text) != std::string::npos;
    }
    bool mail_is_taken()
    {
        uint32_t missing = 0;
        for (uint32_t w = 0; w < scene.mail_writers; w++)
            for (uint32_t s = 1; s <= board().writers[w].acknowledged; s++)
                missing += board().deliveries[w][s] == 0 ? 1 : 0;
        return missing <= in_hand;
    }
    // Records that wait in a message file; -1 when nobody can say.
    int waiting_in(const std::string &name) const
    {
        const std::string info = run_program({bin + "tmf", "info", "--json", disk->file(name)}).out;
        const std::string records = json_member(info, "records");
        return records.empty() ? -1 : atoi(records.c_str());
    }

    // What has not come to the end of the log yet; empty when all has.
    std::string behind(int last)
    {
        char digits[32];
        (void)snprintf(digits, sizeof digits, "%015d", last);
        const std::string json = "\"record\":" + std::to_string(last) + ",";
        std::string names;
        const auto note = [&](bool there, const char *name) {
            if (!there)
                names += std::string(" ") + name;
        };
        bool kept = holds(disk->file("kept.msg"), digits);
        for (int i = 1; !kept && exists("kept" + std::to_string(i) + ".msg"); i++)
            kept = holds(disk->file("kept" + std::to_string(i) + ".msg"), digits);
        note(kept, "kept");
        bool lines = holds(disk->file("lines.txt"), digits);
        for (int i = 1; !lines && exists("lines.txt." + std::to_string(i)); i++)
            lines = holds(disk->file("lines.txt." + std::to_string(i)), digits);
        note(lines, "lines");
        for (const char *name : {"tail", "follower", "taker"}) {
            storm_actor &actor = scene.actor(name);
            bool there = false;
            for (int run = actor.runs; !there && run > 0 && run > actor.runs - 3; run--)
                there = holds(actor.output(run) + ".out", json) ||
                        holds(actor.output(run) + ".out", digits);
            note(there, name);
        }
        note(mail_is_taken(), "mail");
        note(waiting_in("post.msg") == 0, "post");
        return names;
    }
    bool exists(const std::string &name) const
    {
        return std::filesystem::exists(disk->file(name));
    }

    // lately: what befell them may still end one by itself.
    void end_all(const std::string &beginning, bool lately)
    {
        for (storm_actor &actor : scene.actors) {
            if (!actor.name.starts_with(beginning))
                continue;
            const int status = storm_end(actor, SIGTERM);
            EXPECT_TRUE(status == 0 || status == 128 + SIGTERM || (lately && status == 1))
                << actor.name << " ends with " << status << ": " << actor.process.err();
        }
    }

    // All programs go on, and come to the end without any help.
    void calm()
    {
        pass_by(true);
        for (const char *writers : {"client", "mailer", "poster"})
            end_all(writers, true);
        sql("INSERT INTO load.audit (client) VALUES (-7)");
        const auto has_the_last = [&] { return holds_last_change(); };
        const auto tended = [&](const auto &done) {
            return poll_until(
                [&] {
                    for (storm_actor &actor : scene.actors)
                        if (!is_writer(actor.name))
                            storm_tend(actor, random);
                    usleep(100000);
                    return done();
                },
                CALM_SECONDS);
        };
        ASSERT_TRUE(tended(has_the_last)) << scene.actor("bridge").process.err();
        const run_result end = fwlog({"tail", "--json", "-n", "1"});
        const int last = atoi(json_member(end.out, "record").c_str());
        std::string missing;
        EXPECT_TRUE(tended([&] { return (missing = behind(last)).empty(); }))
            << "still behind record " << last << ":" << missing;
        end_all("", false);
    }
    static bool is_writer(const std::string &name)
    {
        return name.starts_with("client") || name.starts_with("mailer") ||
               name.starts_with("poster");
    }
    bool holds_last_change() const
    {
        return fwlog({"tail", "--json", "-n", "1"}).out.find("\"CLIENT\":-7") != std::string::npos;
    }

    std::vector<std::string> kept_records(const std::string &file) const
    {
        const std::string path = disk->file(file);
        return std::filesystem::file_size(path) == 0 ? std::vector<std::string>{}
                                                     : message_records(path);
    }

    // The tables that come of the captured records are the server's.
    void expect_captures_equal_tables()
    {
        replay state = replay_open(disk->file("fwutil.cfg"), load_keys);
        int newest = 0;
        std::string file = "kept.msg";
        for (int i = 1; exists(file); file = "kept" + std::to_string(i++) + ".msg")
            for (const std::string &record : kept_records(file))
                if (record_number(record) != newest) {
                    newest = record_number(record);
                    replay_message(state, record);
                }
        pg_client client = connect();
        write_file(dir.file("contents.csv"), pg_contents(client, "'load'"));
        replay_compare(state, dir.file("contents.csv"));
        state.errors.resize(std::min<size_t>(state.errors.size(), 5));
        EXPECT_THAT(state.errors, testing::IsEmpty());
    }

    // A program may end by itself with an error; none may crash.
    void expect_no_crash()
    {
        // A sanitizer's last words; it ends a program with status 1.
        for (const storm_actor &actor : scene.actors)
            for (const auto &[line, times] : actor.told)
                EXPECT_TRUE(line.find("ABORTING") == std::string::npos &&
                            line.find("Sanitizer") == std::string::npos)
                    << actor.name << ": " << line;
        for (const storm_actor &actor : scene.actors)
            for (const auto &[status, times] : actor.endings) {
                events["starts again"] += times;
                for (const int bad : {2, 126, 127, 128 + SIGSEGV, 128 + SIGABRT, 128 + SIGBUS,
                                      128 + SIGILL, 128 + SIGFPE, 128 + SIGTRAP})
                    EXPECT_NE(status, bad) << actor.name;
            }
    }

    void print(const std::map<std::string, long> &counts) const
    {
        const char *between = " ";
        for (const auto &[name, n] : counts) {
            std::cout << between << n << " " << name;
            between = "; ";
        }
        std::cout << "\n";
    }

    unsigned seed = static_cast<unsigned>(
        number_from("KESTRO_TEST_SEED", static_cast<int>(std::random_device{}() >> 1)));
    std::mt19937 random{seed};
    std::unique_ptr<storm_disk> disk;
    std::unique_ptr<storm_archive> archive;
    std::unique_ptr<storm_proxy> proxy;
    std::unique_ptr<shared_board> seen_board;
    storm_scene scene;
    std::map<std::string, long> events;
    uint32_t in_hand = 0; // readers killed while they may have had a record
    bool frozen = false;
    storm_clock::time_point fed_again, quick_again, goes_through, thawed;
};

TEST_F(StormTest, EachRecordIsAccountedFor)
{
    const int seconds = number_from("KESTRO_STORM_SECONDS", USUAL_SECONDS);
    std::cout << "KESTRO_TEST_SEED=" << seed << "\n";
    SCOPED_TRACE("seed " + std::to_string(seed));
    if (!disk->can_starve())
        std::cout << "No file system of its own: the disk is not filled up\n";
    rage(seconds);
    ASSERT_NO_FATAL_FAILURE(calm());

    archive->copy_to(disk->file("archive"));

    storm_books books{*disk, scene, {}, {}, {}};
    books_read_log(books);
    books_check_captures(books);
    books_check_taken(books);
    books_check_followers(books);
    books_check_mail(books, in_hand);
    books_check_post(books);
    std::vector<std::string> committed;
    for (const auto &row : connect().run("SELECT xid FROM load.audit"))
        committed.push_back(row[0]);
    books_check_transactions(books, committed);
    books_check_files(books);
    EXPECT_THAT(books.faults, testing::IsEmpty());
    expect_captures_equal_tables();
    expect_no_crash();
    events["connections reset"] = proxy->resets();
    std::cout << "storm: " << seconds << " s\nevents:";
    print(events);
    std::cout << "records:";
    print(books.counts);
    for (const storm_actor &actor : scene.actors) {
        std::cout << "ends: " << actor.name;
        for (const auto &[status, times] : actor.endings)
            std::cout << " " << times << " with " << status;
        std::cout << "\n";
        for (const auto &[line, times] : actor.told)
            std::cout << "  " << times << ": " << line << "\n";
    }
}
