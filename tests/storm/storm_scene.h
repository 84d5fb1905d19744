// What a storm has in it: the programs, the files that they share, and the disk that these are on.
#ifndef TESTS_STORM_STORM_SCENE_H
#define TESTS_STORM_STORM_SCENE_H

#include "tests/storm/storm_actor.h"
#include "tests/storm/storm_board.h"

#include <list>
#include <string>

constexpr int STORM_CLIENTS = 3;
constexpr int STORM_MAILERS = 2;
constexpr int STORM_READERS = 2;

// A file system in memory whose size can be changed, where this process may mount one; else a plain
// folder.
class storm_disk {
  public:
    explicit storm_disk(std::string path);
    ~storm_disk();
    storm_disk(const storm_disk &) = delete;
    storm_disk &operator=(const storm_disk &) = delete;

    const std::string &path() const
    {
        return path_;
    }
    std::string file(const std::string &name) const
    {
        return path_ + "/" + name;
    }
    bool can_starve() const
    {
        return mounted_;
    }
    // Leaves so many bytes.
    void starve(uint64_t left) const;
    void feed() const;

  private:
    std::string path_;
    bool mounted_ = false;
};

struct storm_scene {
    std::list<storm_actor> actors; // in the order in which they are started
    std::string board;             // file
    std::string acknowledged;      // folder: of each run of a client what was acknowledged to it
    uint32_t mail_writers = 0;     // numbers given out
    int clients = 0;               // numbers given out
    storm_actor &actor(const std::string &name);
};

// port: of the way to the server for the bridge; server and database: the clients' way, straight.
struct storm_server {
    std::string bridge;  // connection string
    std::string clients; // connection string
    std::string slot;
    unsigned seed;
};

// Configuration, and all programs; none is started.
void storm_set(storm_scene &scene, const storm_disk &disk, const std::string &beside,
               const storm_server &server, const std::string &tables);

// Moves the text file to its next name and asks for a new one, when its follower has it open.
bool storm_rotate(storm_scene &scene, const storm_disk &disk);

#endif
