// A temporary PostgreSQL server: made, started, stopped, crashed and removed.  It
// listens on a Unix socket in its own directory only.  Root hands it to user
// postgres (or nobody), since the server refuses to run as root.
#ifndef TESTS_POSTGRESQL_PG_SERVER_H
#define TESTS_POSTGRESQL_PG_SERVER_H

#include <string>
#include <sys/types.h>
#include <vector>

class pg_server {
  public:
    // Makes the server's directory and starts it; settings are lines of
    // postgresql.conf that come behind the usual ones.  Throws std::runtime_error.
    explicit pg_server(const std::vector<std::string> &settings = {});
    ~pg_server();
    pg_server(const pg_server &) = delete;
    pg_server &operator=(const pg_server &) = delete;

    // Why no server can be had on this machine; empty when one can.
    static std::string missing();

    // The directory of the server's programs; empty when there is none.
    static std::string programs();

    // Starts the server again and waits until it takes connections.
    void start();

    // Stops it: its sessions end, changes that a replication client has not had
    // yet stay in its slot.
    void stop();

    // Takes no new connections and stops when the sessions have ended by themselves;
    // false, and stopped all the same, when they do not within half a minute.
    bool stop_when_unused();

    // Ends all its processes at once, as a crash does; start() recovers.
    void crash();

    // Keeps a copy of the server's data, and puts it in their place again, as a restore
    // from a backup does.  The server must be stopped.
    void save() const;
    void set_back() const;

    // Starts the stopped server as a standby without a primary, and makes a primary of
    // it, which begins a new timeline.
    void start_standby();
    void promote() const;

    // Connection string of a superuser, or of the user named.
    std::string conninfo(const std::string &database = "postgres",
                         const std::string &user = "postgres") const;

    // The socket that the server listens on.
    std::string socket() const;

    // Stops all its processes where they are, as a machine that hangs does, and lets them
    // go on.
    void freeze() const;
    void thaw() const;

    // What the server has logged.
    std::string log() const;

  private:
    bool end(int signal, int seconds);

    std::string directory;
    pid_t pid = -1;
};

#endif
