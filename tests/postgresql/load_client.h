// Processes that work in a database without a pause: inserts, updates and deletes in
// table load.ledger, in transactions of all sizes.  Each transaction leaves a row in
// load.audit, so that the server itself tells which ones were committed.
#ifndef TESTS_POSTGRESQL_LOAD_CLIENT_H
#define TESTS_POSTGRESQL_LOAD_CLIENT_H

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

class load_clients {
  public:
    // Starts n processes; call it while this process has one thread.  They connect
    // again whenever the server takes them.  Of 1,000 transactions "large" have
    // thousands of changes.
    load_clients(const std::string &conninfo, int n, unsigned seed, int large);
    ~load_clients();
    load_clients(const load_clients &) = delete;
    load_clients &operator=(const load_clients &) = delete;

    // Ends them behind the transaction in hand; whether all ended well.
    bool stop();

  private:
    std::vector<pid_t> pids;
    int stop_pipe[2] = {-1, -1};
};

// One client's transactions: what a transaction does, "BEGIN" in front, and how it ends, "COMMIT"
// or "ROLLBACK".
struct load_work;
struct load_transaction {
    std::string work;
    std::string end;
};
// number: the client's, by which its rows differ from all others'.
load_work *load_work_new(int number, unsigned seed, int large);
void load_work_free(load_work *work);
load_transaction load_work_next(load_work &work);

// Table load.audit, which the processes need beside load.ledger, and its dataset.
extern const char audit_sql[];
extern const char audit_cfg[];

#endif
