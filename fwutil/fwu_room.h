// How much room the log's file system has left, and when that is little.
#ifndef FWUTIL_FWU_ROOM_H
#define FWUTIL_FWU_ROOM_H

#include <cstdint>
#include <string>

struct fwu_room {
    bool known = false; // else the file system does not tell
    int64_t free = 0;   // bytes that this process may still write
    int64_t size = 0;   // bytes of the file system
};

fwu_room fwu_room_of(const std::string &directory);

// Less free than this is little: 5 % of the file system, of a large one a GiB.
int64_t fwu_room_little(const fwu_room &room);

// Whether there is little; was: there was at the last look, so that it takes a quarter more to
// be better.
bool fwu_room_is_little(const fwu_room &room, bool was);

// "812 bytes", "43.1 MB", "1.2 GB": of 1000 bytes each.
std::string fwu_room_text(int64_t bytes);

#endif
