// A port in front of a PostgreSQL server that tells one statement from the next, lists them, and
// does harm to the one that a test names: it fails, its answer says less, or the connection ends.
#ifndef TESTS_POSTGRESQL_PG_STRIKER_H
#define TESTS_POSTGRESQL_PG_STRIKER_H

#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

enum pg_harm {
    HARM_NONE,
    HARM_FAILS,         // the server fails: XX000
    HARM_DENIED,        // the role may not: 42501
    HARM_SHUTDOWN,      // the server ends the session: 57P01
    HARM_UNSENT,        // the connection ends, the server never had the statement
    HARM_HALF,          // the connection ends in the middle of the answer, the server has done it
    HARM_NO_ROWS,       // the answer has none
    HARM_FEWER_COLUMNS, // ... lacks its last column
    HARM_NULLS,         // ... has nulls for values
    HARM_NONSENSE,      // ... has "?" for values
    HARM_COUNT,
};

const char *pg_harm_name(pg_harm harm);

// What the messages of HARM_FAILS, HARM_DENIED and HARM_SHUTDOWN say.
extern const char PG_STRUCK[];

// Something that the server was asked for, or has sent by itself: a statement without its numbers,
// a connection, a row of a COPY, a message of the stream.
struct pg_place {
    std::string text;
    int number = 0;    // of those with this text, from 1
    bool rows = false; // its answer has some
};

class pg_striker {
  public:
    // socket: of the server.
    explicit pg_striker(std::string socket);
    ~pg_striker();
    pg_striker(const pg_striker &) = delete;
    pg_striker &operator=(const pg_striker &) = delete;

    // Counts anew, and does this to that place.
    void begin(const pg_place &place, pg_harm harm);

    // Whether it was done.
    bool happened() const;

    // All since begin().
    std::vector<pg_place> places() const;

    // Connection string parts for the port.
    std::string conninfo(const std::string &database) const;

  private:
    enum step {
        PASS,
        DROP_REQUEST, // up to its end: a failing one takes its place
        DROP_ANSWER,  // up to its end: a failing one follows
        CHANGE,       // the answer's rows
        CUT,          // in the next message of the answer that says something
        MUTE,         // the answer ended as the harm has it
    };
    struct pair {
        int client = -1;
        int server = -1;
        bool begun = false; // the connection was asked for
        bool streams = false;
        step now = PASS;
        std::string asked;    // the statement that is being answered
        size_t place = 0;     // in all, plus one; 0: none
        std::string requests; // not whole yet
        std::string answers;
    };

    void serve();
    bool take_requests(pair &both);
    bool take_answers(pair &both);
    bool take_request(pair &both, const std::string &message);
    bool take_answer(pair &both, std::string message);
    pg_harm note(pair &both, const std::string &text);
    bool refuse(const pair &both, bool ends) const;
    bool fail_in_server(pair &both);

    std::string path;
    int listener = -1;
    int port = 0;
    int wake[2] = {-1, -1};
    std::list<pair> pairs; // the thread's

    mutable std::mutex guard; // over what follows
    std::vector<pg_place> all;
    std::map<std::string, int> numbers;
    pg_place chosen;
    pg_harm harm = HARM_NONE;
    bool done = false;

    std::thread thread; // last: it begins when all else is there
};

#endif
