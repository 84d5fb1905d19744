// Clients that change table load.ledger while something happens to it.
#ifndef TESTS_POSTGRESQL_STEPS_H
#define TESTS_POSTGRESQL_STEPS_H

#include "tests/postgresql/pg_client.h"

#include <atomic>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

// A change of one row, or of none; b is a key that a row moves to.
inline const char step_sql[] =
    "CREATE FUNCTION load.step(top bigint) RETURNS void LANGUAGE plpgsql AS $$ DECLARE"
    " a bigint := floor(random() * top); b bigint := floor(random() * top);"
    " what integer := floor(random() * 9);"
    "BEGIN IF what < 2 THEN"
    "  INSERT INTO load.ledger VALUES (a, 0, what, 'new', NULL) ON CONFLICT DO NOTHING;"
    " ELSIF what < 3 THEN DELETE FROM load.ledger WHERE id = a;"
    " ELSIF what < 6 THEN UPDATE load.ledger SET id = b, body = 'moved' WHERE id = a;"
    " ELSE UPDATE load.ledger SET client = client + 1 WHERE id = a; END IF;"
    "EXCEPTION WHEN unique_violation OR deadlock_detected THEN NULL; END $$";

// Clients that change rows until they are stopped; they come back to a server that was gone.
class steps {
  public:
    steps(const std::string &conninfo, int clients, int rows) : top(rows)
    {
        for (int i = 0; i < clients; i++)
            threads.emplace_back([this, conninfo] {
                while (!stopped)
                    try {
                        change(conninfo);
                    } catch (const pg_error &) {
                        usleep(20'000);
                    }
            });
    }
    ~steps()
    {
        stop();
    }
    void stop()
    {
        stopped = true;
        for (std::thread &thread : threads)
            thread.join();
        threads.clear();
    }

  private:
    void change(const std::string &conninfo) const
    {
        pg_client session(conninfo);
        session.run("SET deadlock_timeout = '20ms'");
        while (!stopped) {
            session.run("SELECT load.step(" + std::to_string(top) +
                        " + 100) FROM generate_series(0, (random() * 3)::integer)");
            usleep(500);
        }
    }

    int top;
    std::atomic<bool> stopped = false;
    std::vector<std::thread> threads;
};

#endif
