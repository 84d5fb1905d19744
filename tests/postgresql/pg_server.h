// A temporary PostgreSQL server: made, started, stopped, crashed and removed.  It
// listens on a Unix socket in its own directory, and on no other unless it is given a port.  Root
// hands it to user postgres (or nobody), since the server refuses to run as root.
#ifndef TESTS_POSTGRESQL_PG_SERVER_H
#define TESTS_POSTGRESQL_PG_SERVER_H

#include <string>
#include <sys/types.h>
#include <vector>

class pg_server {
  public:
    // Makes the server's directory and starts it; settings are lines of
    // postgresql.conf that come behind the usual ones.  With a port it listens on 127.0.0.1,
    // too.  Throws std::runtime_error.
    explicit pg_server(const std::vector<std::string> &settings = {}, int port = 0);
    ~pg_server();
    pg_server(const pg_server &) = delete;
    pg_server &operator=(const pg_server &) = delete;

    // Why no server can be had on this machine; empty when one can, or when one was chosen.
    static std::string missing();

    // A port of 127.0.0.1 that nobody listens on at this moment.
    static int free_port();

    // The directory of the server's programs: what KESTRO_POSTGRESQL names, else the newest
    // that is installed; empty when there is none.
    static std::string programs();

    // A client program of those that are installed (psql); empty when it is not there.
    static std::string client_program(const std::string &name);

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

    // Ends a database's sessions and drops it, if it is there; its slots must be gone.
    void drop_database(const std::string &name) const;

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
    int port; // 0: that of the socket only
    pid_t pid = -1;
};

// Stops one of a server's processes where it waits for its client or for work.  Stopped anywhere
// else it could hold a lock for a moment that all others need.
void pg_stop_at_rest(pid_t process);

#endif
