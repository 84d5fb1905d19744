// A port in front of a PostgreSQL server that passes everything on, and falls silent, changes an
// answer or gives one of its own where a test asks for it.
#ifndef TESTS_POSTGRESQL_PG_PROXY_H
#define TESTS_POSTGRESQL_PG_PROXY_H

#include <atomic>
#include <list>
#include <mutex>
#include <string>
#include <thread>

class pg_proxy {
  public:
    // socket: of the server.
    explicit pg_proxy(std::string socket);
    ~pg_proxy();
    pg_proxy(const pg_proxy &) = delete;
    pg_proxy &operator=(const pg_proxy &) = delete;

    // The next client that sends the text gets no more than so many bytes of the answer,
    // and nothing behind it.  The server has the request.
    void silence_at(const std::string &text, size_t bytes = 0);

    // In what the next client that sends the text gets behind it, bytes become others, as
    // many; so often, and once in what comes at a time.
    void change_behind(const std::string &text, const std::string &from, const std::string &to,
                       int times = 1);

    // The next client that sends the text gets these bytes and nothing of the server's answer; it
    // has the request.  All that is behind it, as well; but for the_server, which goes on with what
    // it is asked next.
    enum class behind { silence, end_of_connection, the_same_for_ever, the_server };
    void answer_with(const std::string &text, const std::string &bytes, behind then);

    // Bytes that the_same_for_ever has come to.
    size_t poured() const;

    // Whether what was asked for last has happened.
    bool happened() const;

    // Connection string parts for the proxy's port.
    std::string conninfo(const std::string &database) const;

  private:
    struct pair {
        int client = -1;
        int server = -1;
        bool chosen = false;
        size_t bytes = 0;  // still to be passed on to the client chosen
        std::string flood; // what it is given for ever
        size_t flood_at = 0;
        std::string left_out; // the end of what the server has answered, while it is left out
    };

    void serve();
    bool take_request(pair &both);
    bool take_answer(pair &both);
    bool pour(pair &both);

    std::string path;
    int listener = -1;
    int port = 0;
    int wake[2] = {-1, -1};
    std::list<pair> pairs; // the thread's

    mutable std::mutex guard; // over what follows
    std::string trigger;      // empty: nothing is asked for
    bool silent = false;
    size_t bytes_left = 0;
    bool answers = false; // itself, with replacement
    behind then = behind::silence;
    size_t poured_bytes = 0;
    std::string replaced;
    std::string replacement;
    int changes_left = 0;
    bool done = false;

    std::thread thread; // last: it begins when all else is there
};

#endif
