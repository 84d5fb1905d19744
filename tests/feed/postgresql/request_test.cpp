// Tables that are to be taken in: what others ask for in the log directory, and what they hear.
#include "feed/postgresql/request.h"
#include "feed/postgresql/resumable.h"
#include "feed/table.h"
#include "tests/support/failing_calls.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <array>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// What the catalogue says of a table.
using found_row = std::array<std::string, 15>;

static pgs_result found_rows(const std::vector<found_row> &rows)
{
    pgs_result result(PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK));
    PGresAttDesc columns[15] = {};
    char name[] = "column";
    for (PGresAttDesc &column : columns)
        column.name = name;
    PQsetResultAttrs(result.get(), 15, columns);
    for (size_t i = 0; i < rows.size(); i++)
        for (size_t j = 0; j < rows[i].size(); j++) {
            std::string text = rows[i][j];
            PQsetvalue(result.get(), static_cast<int>(i), static_cast<int>(j), text.data(),
                       static_cast<int>(text.size()));
        }
    return result;
}

static const found_row orders = {"app", "orders", "app.orders", "t", "", "", "f", "t", "f", "5000"};

class Requests : public testing::Test {
  protected:
    Requests()
    {
        config.path = "shop.cfg";
        config.log_directory = dir.file("log");
        EXPECT_EQ(fwu_writer_open(&writer, config), 0);
        commit(1000);
        relations.tables.config = &config;
        requests.directory = config.log_directory;
        requests.publication = "kestro";
        EXPECT_TRUE(pga_open(relations.aside, config.log_directory, 0600, 1000));
        server_has({orders});
    }
    ~Requests() override
    {
        for (const auto &[file, pid] : askers) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        fwu_writer_close(writer);
    }

    // ---- the log and the server

    void commit(uint64_t lsn)
    {
        const fwu_mark mark = {.kind = FWU_MARK_GAP,
                               .dbname = "APP",
                               .dsetname = "ORDERS",
                               .schema = "app",
                               .table = "orders",
                               .reason = "a test"};
        fwu_commit of;
        of.lsn = lsn;
        EXPECT_EQ(fwu_writer_begin(writer, nullptr), 0);
        EXPECT_EQ(fwu_writer_mark(writer, mark), 0);
        EXPECT_EQ(fwu_writer_commit(writer, of), 0);
    }

    void server_has(const std::vector<found_row> &rows)
    {
        relations.facts.ask = [this, rows](const std::string &query, pgs_result &result) {
            asked.push_back(query);
            result = found_rows(rows);
            return true;
        };
    }

    void set_aside(const std::string &table, uint64_t at = 800)
    {
        pgb_put(table, {.standing = PGA_ASIDE,
                        .at = at,
                        .since = at,
                        .since_us = 7,
                        .reason = "a value is bad"});
    }

    void pgb_put(const std::string &table, const pga_record &record)
    {
        pga_put(relations.aside, "app", table, record);
        EXPECT_TRUE(pga_keep(relations.aside, 1000));
    }

    // ---- whoever asks

    // Leaves a request, held by a process that waits for the answer.
    void ask(const std::string &file, const std::string &tables)
    {
        const std::string path = dir.file("log/" + file + ".request");
        write_file(path, tables);
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            struct flock lock = {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            const int fd = open(path.c_str(), O_RDWR);
            if (fd < 0 || fcntl(fd, F_SETLK, &lock) != 0 || write(ready[1], "x", 1) != 1)
                _exit(1);
            for (;;)
                pause();
        }
        char byte = 0;
        ASSERT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        close(ready[1]);
        askers[file] = pid;
    }

    void go_away(const std::string &file)
    {
        kill(askers.at(file), SIGKILL);
        waitpid(askers.at(file), nullptr, 0);
        askers.erase(file);
    }

    std::string answer_of(const std::string &file) const
    {
        return read_file(dir.file("log/" + file + ".answer"));
    }

    static std::string answer(bool done, const std::string &state, int rows, int estimate,
                              const std::string &reason = "")
    {
        return std::string("{\"done\":") + (done ? "true" : "false") +
               ",\"tables\":[{\"table\":\"app.orders\",\"state\":\"" + state +
               "\",\"rows\":" + std::to_string(rows) + ",\"estimate\":" + std::to_string(estimate) +
               ",\"reason\":\"" + reason + "\"}]}\n";
    }

    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(dir.file("log")))
            if (const std::string name = entry.path().filename(); name.starts_with("resume-"))
                names.push_back(name);
        std::sort(names.begin(), names.end());
        return names;
    }

    // ---- the bridge

    void look(bool between = true, const std::string &waits = "")
    {
        requests.look_ms = 0;
        EXPECT_TRUE(
            pgr_look(requests, relations, {.writer = writer, .between = between, .waits = waits}));
    }

    std::string open_with(const std::vector<const char *> &own)
    {
        tell_as("fwlog");
        testing::internal::CaptureStderr();
        pgr_open(requests, relations.aside, own);
        look();
        return testing::internal::GetCapturedStderr();
    }

    pga_standing standing_of(const std::string &table) const
    {
        const pga_record *record = pga_find(relations.aside, table);
        return record == nullptr ? PGA_FOLLOWED : record->standing;
    }

    const tempdir dir;
    fwu_config config;
    fwu_writer *writer = nullptr;
    pgb_relations relations;
    pgr_requests requests;
    std::vector<std::string> asked;
    std::map<std::string, pid_t> askers;
};

TEST_F(Requests, ATableThatIsSetAsideIsTakenInBehindTheLogsEnd)
{
    set_aside("orders");
    ask("resume-abc123", "app.orders\n");
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 0, 5000));
    const pga_record wanted = {.standing = PGA_TAKING,
                               .at = 1000,
                               .since = 800,
                               .since_us = 7,
                               .reason = "a value is bad",
                               .replaces = true,
                               .why = "resume"};
    EXPECT_EQ(*pga_find(relations.aside, "app.orders"), wanted);
    pga_registry kept;
    ASSERT_TRUE(pga_open(kept, config.log_directory, 0600, 1000));
    EXPECT_EQ(*pga_find(kept, "app.orders"), wanted) << "on disk";
}

// What the system gives in part is read on: no table is left out.
TEST_F(Requests, ARequestThatIsReadInPartHasAllItsTables)
{
    int n = 0;
    std::string name;
    const auto prepare = [&] {
        name = "resume-" + std::to_string(100000 + ++n);
        ask(name, "app.orders\napp.customers\n");
        requests.look_ms = 0;
    };
    const auto look_once = [&] {
        (void)pgr_look(requests, relations, {.writer = writer, .between = true, .waits = ""});
    };
    int halves = 0;
    const auto see = [&](const blow_told &blow) {
        EXPECT_THAT(answer_of(name), HasSubstr("\"app.orders\""));
        EXPECT_THAT(answer_of(name), HasSubstr("\"app.customers\""));
        halves += blow.call == "pread64" ? 1 : 0;
        go_away(name);
        look();
    };
    strike_each(prepare, look_once, see, {BLOW_HALF});
    EXPECT_GT(halves, 0);
}

TEST_F(Requests, AnswersFollowWhatBecomesOfATable)
{
    set_aside("orders");
    ask("resume-abc123", "app.orders\n");
    look();
    pgb_put("orders", {.standing = PGA_TAKING, .at = 1000, .why = "resume", .rows = 1200});
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 1200, 5000));
    pgb_put("orders", {.standing = PGA_FOLLOWED, .at = 2007});
    relations.aside.taken["app.orders"] = 1500;
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 1500, 5000))
        << "the log does not have it yet";
    commit(2007);
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 1500, 5000))
        << "it may not be on disk";
    EXPECT_EQ(fwu_writer_sync(writer), 0);
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(true, "followed", 1500, 5000));
    EXPECT_EQ(asked.size(), 1U);
}

TEST_F(Requests, ATableThatIsFollowedIsTakenInAnew)
{
    ask("resume-abc123", "\"app\".\"orders\"\napp.orders\n");
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 0, 5000)) << "once";
    const pga_record *record = pga_find(relations.aside, "app.orders");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(*record,
              (pga_record{.standing = PGA_TAKING, .at = 1000, .replaces = true, .why = "resume"}));
}

TEST_F(Requests, ATableThatIsBeingTakenInGoesOnAsItIs)
{
    const pga_record record = {.standing = PGA_TAKING,
                               .at = 900,
                               .why = "snapshot",
                               .key = {"id"},
                               .reached = {"17"},
                               .rows = 17};
    pgb_put("orders", record);
    ask("resume-abc123", "app.orders\n");
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 17, 5000));
    EXPECT_EQ(*pga_find(relations.aside, "app.orders"), record);
}

TEST_F(Requests, AllAreThoseThatAreSetAside)
{
    set_aside("orders");
    set_aside("lines");
    pgb_put("other", {.standing = PGA_TAKING, .at = 900, .why = "snapshot"});
    server_has({orders, {"app", "lines", "app.lines", "t", "", "", "f", "t", "f", "-1"}});
    ask("resume-abc123", "all\n");
    look();
    const std::string heard = answer_of("resume-abc123");
    EXPECT_THAT(heard, HasSubstr("\"app.lines\",\"state\":\"taking\",\"rows\":0,\"estimate\":-1"));
    EXPECT_THAT(heard, HasSubstr("\"app.orders\",\"state\":\"taking\""));
    EXPECT_THAT(heard, testing::Not(HasSubstr("app.other")));
    ask("resume-xyz789", "all\n");
    look();
    EXPECT_EQ(answer_of("resume-xyz789"), "{\"done\":true,\"tables\":[]}\n");
}

TEST_F(Requests, NothingIsDecidedInsideATransactionOrWithoutTheServer)
{
    set_aside("orders");
    ask("resume-abc123", "app.orders\n");
    look(false);
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "asked", 0, -1));
    look(false, "the server is not there: gone");
    EXPECT_EQ(answer_of("resume-abc123"),
              answer(false, "asked", 0, -1, "the server is not there: gone"));
    EXPECT_THAT(asked, IsEmpty());
    EXPECT_EQ(standing_of("app.orders"), PGA_ASIDE);
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 0, 5000));
    look(false, "the server is not there: gone");
    EXPECT_EQ(answer_of("resume-abc123"),
              answer(false, "taking", 0, 5000, "the server is not there: gone"));
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 0, 5000));
}

TEST_F(Requests, AServerThatDoesNotAnswerIsAskedAgainLater)
{
    ask("resume-abc123", "app.orders\n");
    relations.facts.ask = [this](const std::string &query, pgs_result &) {
        asked.push_back(query);
        return false;
    };
    for (int i = 0; i < 3; i++)
        look();
    EXPECT_EQ(asked.size(), 1U);
    EXPECT_EQ(answer_of("resume-abc123"),
              answer(false, "asked", 0, -1, "the server has not answered a question about it yet"));
    server_has({orders});
    requests.ask_ms = 0;
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 0, 5000));
}

TEST_F(Requests, WhatIsWrongWithATableIsSaid)
{
    config.skip_tables = {"app.left_out"};
    const struct {
        const char *table;
        found_row found; // without a name: there is none
        const char *why;
    } rows[] = {
        {"app.left_out", orders,
         "the configuration leaves it out: take \"skip-table app.left_out\" out of shop.cfg, stop "
         "the bridge, and start it with --resume"},
        {"app.orders", {}, "the database has no such table (capitals count)"},
        {"app.orders",
         {"app", "orders", "app.orders", "f", "app", "all orders", "f", "t", "f", "0"},
         "it is a part of app.\"all orders\", which is followed as a whole: name that one"},
        {"app.orders",
         {"app", "orders", "app.orders", "f", "", "", "t", "t", "f", "0"},
         "its partitions are followed, each for itself: name those"},
        {"app.orders",
         {"app", "orders", "app.orders", "f", "", "", "f", "f", "f", "0"},
         "the server's log does not have it: it is unlogged, temporary, or no table"},
        {"app.orders",
         {"app", "orders", "app.orders", "f", "", "", "f", "t", "t", "0"},
         "publication \"kestro\" does not have it"},
        {"app.orders",
         {"app", "orders", "app.orders", "f", "", "", "f", "t", "f", "0"},
         "publication \"kestro\" does not have it: run ALTER PUBLICATION \"kestro\" ADD TABLE "
         "app.orders, then resume it"},
        {"app.orders",
         {"app", "orders", "app.orders", "t", "", "", "f", "t", "f", "0", "t", "t", "t", "app",
          "\"Me\""},
         "permission denied for schema app; give the role the right: GRANT USAGE ON SCHEMA app TO "
         "\"Me\""},
        {"app.orders",
         {"app", "orders", "app.orders", "t", "", "", "f", "t", "f", "0", "f", "t", "t", "app",
          "\"Me\""},
         "permission denied for table orders; give the role the right: GRANT SELECT ON app.orders "
         "TO \"Me\""},
        {"app.orders",
         {"app", "orders", "app.orders", "t", "", "", "f", "t", "f", "0", "f", "f", "t", "app",
          "\"Me\""},
         "query would be affected by row-level security policy for table \"orders\"; let the role "
         "see all rows: ALTER ROLE \"Me\" BYPASSRLS"},
    };
    for (const auto &row : rows) {
        requests.open.clear();
        server_has(row.found[0].empty() ? std::vector<found_row>() : std::vector{row.found});
        ask("resume-abc123", std::string(row.table) + "\n");
        look();
        const pgr_table wanted = {
            .name = row.table, .state = PGR_REFUSED, .rows = 0, .estimate = -1, .reason = row.why};
        EXPECT_EQ(answer_of("resume-abc123"), pgr_answer_text({.done = true, .tables = {wanted}}));
        EXPECT_EQ(standing_of(row.table), PGA_FOLLOWED);
        go_away("resume-abc123");
        look();
    }
}

TEST_F(Requests, ATableThatIsSetAsideAndGoneComesToItsEndWhereTheStreamIs)
{
    set_aside("orders");
    server_has({});
    ask("resume-abc123", "app.orders\n");
    look();
    EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 0, -1));
}

TEST_F(Requests, ATableThatIsSetAsideAgainIsRefused)
{
    for (const char *why :
         {"it was set aside: a value is bad", "it was set aside again: a value is bad"}) {
        ask("resume-abc123", "app.orders\n");
        look();
        EXPECT_EQ(standing_of("app.orders"), PGA_TAKING);
        set_aside("orders", 1000);
        look();
        EXPECT_EQ(answer_of("resume-abc123"), answer(true, "refused", 0, 5000, why));
        go_away("resume-abc123");
        look();
    }
}

TEST_F(Requests, OneBadNameLeavesTheOthers)
{
    ask("resume-abc123", "orders\napp.orders\n");
    look();
    EXPECT_THAT(answer_of("resume-abc123"),
                HasSubstr("{\"table\":\"orders\",\"state\":\"refused\",\"rows\":0,\"estimate\":-1,"
                          "\"reason\":\"this is no name of a table (schema.table)\"}"));
    EXPECT_EQ(standing_of("app.orders"), PGA_TAKING);
}

TEST_F(Requests, AnErrorOfTheConnectionRefusesNothing)
{
    relations.facts.ask = [](const std::string &, pgs_result &result) {
        result.reset(PQmakeEmptyPGresult(nullptr, PGRES_FATAL_ERROR));
        return false;
    };
    ask("resume-abc123", "app.orders\n");
    look();
    EXPECT_THAT(answer_of("resume-abc123"), HasSubstr("has not answered a question about it yet"));
}

TEST_F(Requests, FilesThatCannotBeReadAreAnswered)
{
    std::filesystem::create_directory(dir.file("log/resume-abc123.request"));
    look();
    EXPECT_THAT(files(), ElementsAre("resume-abc123.request")) << "nobody waits for it";
    ask("resume-big456", "app.orders\n");
    std::filesystem::resize_file(dir.file("log/resume-big456.request"), 65 << 20);
    look();
    EXPECT_THAT(answer_of("resume-big456"), HasSubstr("cannot be read: File too large"));
}

TEST_F(Requests, WhereNobodyWaitsAnyMoreBothFilesGo)
{
    ask("resume-abc123", "app.orders\n");
    look();
    go_away("resume-abc123");
    look();
    EXPECT_THAT(files(), IsEmpty());
    EXPECT_EQ(standing_of("app.orders"), PGA_TAKING) << "it goes on";
    write_file(dir.file("log/resume-xyz789.request"), "app.lines\n");
    look();
    EXPECT_THAT(files(), IsEmpty());
    EXPECT_EQ(standing_of("app.lines"), PGA_FOLLOWED) << "it was over before it was seen";
}

TEST_F(Requests, WhoeverWaitsTakesTheFilesAway)
{
    ask("resume-abc123", "app.orders\n");
    look();
    std::filesystem::remove(dir.file("log/resume-abc123.request"));
    look();
    EXPECT_THAT(files(), IsEmpty());
    EXPECT_THAT(requests.open, IsEmpty());
}

TEST_F(Requests, TheNextBridgeGoesOnWhereOneEnded)
{
    ask("resume-abc123", "app.orders\napp.lines\n");
    look();
    EXPECT_EQ(standing_of("app.orders"), PGA_TAKING);
    pgb_put("orders", {.standing = PGA_FOLLOWED, .at = 1000});
    const size_t questions = asked.size();
    requests.open.clear(); // as another process has it
    look();
    EXPECT_EQ(asked.size(), questions);
    EXPECT_EQ(standing_of("app.orders"), PGA_FOLLOWED) << "it is not taken in twice";
    EXPECT_THAT(answer_of("resume-abc123"), HasSubstr("\"app.orders\",\"state\":\"followed\""));
    EXPECT_THAT(answer_of("resume-abc123"), HasSubstr("\"app.lines\",\"state\":\"refused\""));
}

TEST_F(Requests, AnAnswerThatIsNoneCountsForNothing)
{
    for (const char *text :
         {"", "{}",
          "{\"done\":false,\"tables\":[{\"table\":\"x\",\"state\":\"asked\",\"rows\":0,"
          "\"estimate\":0,\"reason\":\"\"}]}\n"}) {
        requests.open.clear();
        ask("resume-abc123", "app.orders\n");
        write_file(dir.file("log/resume-abc123.answer"), text);
        look();
        EXPECT_EQ(answer_of("resume-abc123"), answer(false, "taking", 0, 5000));
        go_away("resume-abc123");
    }
}

TEST_F(Requests, TheNextBridgeKnowsNamesOfAnyBytes)
{
    set_aside("caf\xE9"); // of a database that says nothing of its texts
    found_row cafe = orders;
    cafe[1] = "caf\xE9";
    server_has({cafe});
    ask("resume-abc123", "app.caf\xE9\n");
    look();
    EXPECT_EQ(standing_of("app.caf\xE9"), PGA_TAKING);
    requests.open.clear();
    look();
    EXPECT_THAT(answer_of("resume-abc123"),
                HasSubstr("{\"done\":false,\"tables\":[{\"table\":\"app.caf\\ufffd\",\"state\":"
                          "\"taking\""));
    pgb_put("caf\xE9", {.at = 1000});
    look();
    EXPECT_THAT(answer_of("resume-abc123"), HasSubstr("\"state\":\"followed\""));
}

TEST_F(Requests, WhatWasLeftForGoodGoesAtAStart)
{
    const auto age = [this](const char *name, int64_t seconds) {
        const std::string path = dir.file(std::string("log/") + name);
        write_file(path, "");
        const timespec time = {.tv_sec = ::time(nullptr) - seconds, .tv_nsec = 0};
        const timespec both[2] = {time, time};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), both, 0), 0);
    };
    age("resume-aaaaaa", 3600);
    age("resume-bbbbbb", 1);
    age("resume-cccccc.answer", 3600);
    age("resume-dddddd.answer", 3600);
    age("resume-dddddd.request", 3600);
    age("resume-eeeeee.answer.new", 3600);
    pgr_open(requests, relations.aside, {});
    EXPECT_THAT(files(),
                ElementsAre("resume-bbbbbb", "resume-dddddd.answer", "resume-dddddd.request"));
}

TEST_F(Requests, TheCommandLinesTablesNeedNoFile)
{
    set_aside("orders");
    EXPECT_EQ(open_with({"all"}), "");
    EXPECT_FALSE(pgr_waits(requests));
    EXPECT_FALSE(requests.refused);
    EXPECT_EQ(standing_of("app.orders"), PGA_TAKING);
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(Requests, ARunWaitsForWhatItsCommandLineNames)
{
    pgr_open(requests, relations.aside, {"app.orders"});
    EXPECT_TRUE(pgr_waits(requests));
    ask("resume-abc123", "app.lines\n");
    look(false);
    EXPECT_TRUE(pgr_waits(requests));
    look();
    EXPECT_FALSE(pgr_waits(requests));
}

TEST_F(Requests, ARunTellsWhatIsWrongWithItsTables)
{
    EXPECT_EQ(open_with({"app.nothing", "app.orders"}),
              "fwlog: warning: table app.nothing is not taken in: the database has no such table "
              "(capitals count)\n");
    EXPECT_TRUE(requests.refused);
    EXPECT_EQ(standing_of("app.orders"), PGA_TAKING);
}

TEST_F(Requests, ARunWithoutTablesSetAsideSaysSo)
{
    EXPECT_EQ(open_with({"all"}), "fwlog: no table is set aside\n");
    EXPECT_FALSE(pgr_waits(requests));
    EXPECT_THAT(asked, IsEmpty());
}

TEST_F(Requests, LooksOnceASecond)
{
    ask("resume-abc123", "app.orders\n");
    requests.look_ms = INT64_MAX;
    EXPECT_TRUE(pgr_look(requests, relations, {.writer = writer, .between = true}));
    EXPECT_EQ(answer_of("resume-abc123"), "");
}

TEST_F(Requests, AnswersHaveTheModeOfTheLog)
{
    requests.mode = 0640;
    ask("resume-abc123", "app.orders\n");
    look();
    struct stat about = {};
    ASSERT_EQ(stat(dir.file("log/resume-abc123.answer").c_str(), &about), 0);
    EXPECT_EQ(about.st_mode & 07777, 0640U);
}
