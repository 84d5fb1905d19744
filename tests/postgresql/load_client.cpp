// The clients' transactions, made from random numbers.
#include "tests/postgresql/load_client.h"

#include "tests/postgresql/pg_client.h"
#include "tests/support/run.h"

#include <csignal>
#include <fcntl.h>
#include <random>
#include <sys/prctl.h>
#include <unistd.h>

const char audit_sql[] =
    "CREATE TABLE load.audit (id bigserial PRIMARY KEY, client integer NOT NULL,"
    " xid bigint NOT NULL DEFAULT txid_current());"
    "ALTER TABLE load.audit REPLICA IDENTITY FULL;";

const char audit_cfg[] = "dataset AUDIT\n"
                         "item ID       I 8\n"
                         "item CLIENT   I 4\n"
                         "item XID      I 8\n";

constexpr int64_t IDS_PER_CLIENT = 1'000'000'000;
constexpr int64_t LARGE = 3000;

struct load_work {
    int number = 0;
    int large = 0;
    int64_t next = 0; // id of the next row
    std::mt19937 random;

    int64_t below(int64_t limit)
    {
        return static_cast<int64_t>(random() % static_cast<uint64_t>(limit));
    }

    // The id of one of the rows made not long ago, deleted or not.
    std::string some_id()
    {
        const int64_t first = IDS_PER_CLIENT * number;
        return std::to_string(std::max(first, next - 1 - below(60)));
    }

    std::string insert()
    {
        const std::string amount =
            below(5) == 0 ? "NULL" : std::to_string(below(2'000'000) - 1'000'000) + " / 100.0";
        return "INSERT INTO load.ledger VALUES (" + std::to_string(next++) + ", " +
               std::to_string(number) + ", " + amount + ", repeat('b', " +
               std::to_string(below(61)) + "), " + (below(2) == 0 ? "NULL" : "true") + ");";
    }

    std::string change()
    {
        switch (below(6)) {
        case 0:
            return "DELETE FROM load.ledger WHERE id = " + some_id() + ";";
        case 1:
        case 2:
            return "UPDATE load.ledger SET amount = coalesce(amount, 0) + 1, body = repeat('u', " +
                   std::to_string(below(61)) + ") WHERE id = " + some_id() + ";";
        case 3: // what is rolled back to a savepoint is not there
            return "SAVEPOINT s; UPDATE load.ledger SET body = 'never' WHERE id = " + some_id() +
                   "; ROLLBACK TO s;" + insert();
        default:
            return insert();
        }
    }

    // Thousands of rows made, changed and, but for a few, deleted.
    std::string large_changes()
    {
        const std::string first = std::to_string(next);
        next += LARGE;
        const std::string last = std::to_string(next - 1);
        const std::string range = " WHERE id BETWEEN " + first + " AND " + last;
        return "INSERT INTO load.ledger SELECT g, " + std::to_string(number) +
               ", g % 1000, 'large ' || g, false FROM generate_series(" + first + "::bigint, " +
               last + ") g; UPDATE load.ledger SET paid = true" + range +
               "; DELETE FROM load.ledger" + range + " AND id % 100 <> 0;";
    }

    load_transaction transaction()
    {
        std::string sql = "BEGIN; SELECT pg_logical_emit_message(true, 'session', 'user=L" +
                          std::to_string(number) + "');";
        sql += "INSERT INTO load.audit (client) VALUES (" + std::to_string(number) + ");";
        if (below(1000) < large)
            sql += large_changes();
        else
            for (int64_t n = 1 + below(8); n > 0; n--)
                sql += change();
        return {sql, below(20) == 0 ? "ROLLBACK" : "COMMIT"};
    }
};

static load_work made_work(int number, unsigned seed, int large)
{
    load_work work;
    work.number = number;
    work.large = large;
    work.next = IDS_PER_CLIENT * number;
    work.random.seed(seed);
    return work;
}

load_work *load_work_new(int number, unsigned seed, int large)
{
    return new load_work(made_work(number, seed, large));
}

void load_work_free(load_work *work)
{
    delete work;
}

load_transaction load_work_next(load_work &work)
{
    return work.transaction();
}

static int work_on(load_work &client, const std::string &conninfo, int stop)
{
    std::unique_ptr<pg_client> session;
    char byte = 0;
    while (read(stop, &byte, 1) != 0) {
        try {
            if (session == nullptr)
                session = std::make_unique<pg_client>(conninfo);
            const load_transaction made = client.transaction();
            session->run(made.work + made.end);
        } catch (const pg_error &) {
            session.reset(); // the server is gone: whether it committed, its tables tell
        }
        usleep(static_cast<useconds_t>(client.below(4000)));
    }
    return 0;
}

load_clients::load_clients(const std::string &conninfo, int n, unsigned seed, int large)
{
    if (pipe2(stop_pipe, O_NONBLOCK | O_CLOEXEC) != 0)
        return;
    for (int i = 1; i <= n; i++) {
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(stop_pipe[1]);
            load_work client = made_work(i, seed + static_cast<unsigned>(i), large);
            _exit(work_on(client, conninfo, stop_pipe[0]));
        }
        pids.push_back(pid);
    }
}

load_clients::~load_clients()
{
    stop();
}

bool load_clients::stop()
{
    bool good = !pids.empty();
    close(stop_pipe[1]);
    for (const pid_t pid : pids)
        good = wait_program(pid) == 0 && good;
    if (!pids.empty())
        close(stop_pipe[0]);
    pids.clear();
    stop_pipe[0] = stop_pipe[1] = -1;
    return good;
}
