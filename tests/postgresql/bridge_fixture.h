// A database of its own for each case on one server for all cases, a directory with a
// configuration and a forward log, "fwlog postgresql" that follows the database, and
// what Kestro and fwlog tell about the log.
#ifndef TESTS_POSTGRESQL_BRIDGE_FIXTURE_H
#define TESTS_POSTGRESQL_BRIDGE_FIXTURE_H

#include "examples/orders/replay.h"
#include "tests/postgresql/background.h"
#include "tests/postgresql/pg_client.h"
#include "tests/postgresql/pg_server.h"
#include "tests/postgresql/stuck_report.h"
#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <thread>

class BridgeTest : public testing::Test {
  protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;
    void TearDown() override;

    // ---- the database

    // A session of the case's database.
    pg_client connect(const std::string &user = "postgres") const;
    void sql(const std::string &text) const;
    std::string value(const std::string &text) const;
    std::string conninfo(const std::string &user = "postgres") const;

    // The server's main version.
    static int server_version();

    // A kind of generated columns that the server does not send: "STORED".
    static std::string unsent_kind();

    // What --create puts behind CREATE PUBLICATION ... FOR ...
    static std::string publication_with();

    // ---- the bridge

    // Writes the configuration: the log's directory, then the text.
    void configure(const std::string &text = "") const;

    // "fwlog postgresql" for the case's database, slot and publication.
    std::vector<std::string> bridge_argv(const std::vector<std::string> &more = {}) const;
    run_result run_bridge(const std::vector<std::string> &more) const;

    // With --once: until the log has all that the server has now.
    run_result catch_up(const std::vector<std::string> &more = {}) const;

    void start_bridge(const std::vector<std::string> &more = {});

    // Starts it with a slot of its own and waits until it follows the server.
    void begin_following();

    // Waits for a text in what the bridge has said.
    bool bridge_says(const std::string &text);

    bool snapshot_is_done() const;

    // Commits wait for a standby that is not there: the stream has them, others do not see them.
    void let_commits_wait(bool wait) const;

    // The thread of a session whose commit waits like that.  It is run again when it did not: the
    // server takes its time to begin with it.
    std::thread run_until_it_waits(const std::string &text) const;

    // A member of the bridge's status file; empty when it cannot be had.
    std::string status_member(const std::string &name) const;

    // ---- the slot

    // Where it stands now is where bring_slot_back() puts it, whoever has it.
    void keep_slot() const;
    void bring_slot_back() const;
    void bring_slot_back(pg_client &client) const;
    void drop_slot() const;
    void drop_slot(pg_client &client) const;

    // ---- the log

    run_result fwlog(const std::vector<std::string> &words) const;

    // "fwlog dump" without what differs from run to run.
    std::string dump() const;

    // A line for each entry of the log: what changed, and in which transaction of the server, if in
    // one.
    std::string history() const;

    // Whether the log holds a text, as the dump shows it.
    bool logged(const std::string &text) const;

    // Waits until a row of load.ledger has come to the log.
    void wait_for_row(int id);

    // Captures the whole log into a message file and takes the records.
    std::vector<std::string> captured() const;

    // The log has each change of the tables of schema "load" once, and replayed it
    // gives their contents.
    void expect_log_equals_tables() const;

    tempdir dir;
    run_setup options;
    background bridge;
    std::string database; // also the slot's and the publication's name
    static std::unique_ptr<pg_server> server;
    const stuck_report stuck{600};
};

// The same with table load.ledger and its dataset.
class LedgerTest : public BridgeTest {
  protected:
    void SetUp() override;

    void insert(int id) const;
};

// Header fields of a message record with -exthdr -yyyy -recnum.
int record_number(const std::string &record);

// Records of a message file, which stay in it.
std::vector<std::string> message_records(const std::string &path);

// A member of a JSON object without further objects, as it stands there; a string
// without its quotes; empty when there is none.
std::string json_member(const std::string &json, const std::string &name);

// How often a text stands in another one.
int occurrences(const std::string &text, const std::string &part);

// Schema load, table load.ledger and its dataset; keys of all tables of the schema.
extern const char ledger_sql[];
extern const char ledger_cfg[];
extern const replay_keys load_keys;

#endif
