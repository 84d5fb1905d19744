// The measure grows with the file system, since what fills it does, up to a size that is enough to
// act in time.
#include "fwutil/fwu_room.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sys/statvfs.h>

constexpr int64_t PART = 20; // of the file system is little
constexpr int64_t LITTLE_MAX = int64_t{1} << 30;

fwu_room fwu_room_of(const std::string &directory)
{
    struct statvfs about = {};
    fwu_room room;
    if (statvfs(directory.c_str(), &about) != 0 || about.f_blocks == 0)
        return room;
    const auto block = static_cast<int64_t>(about.f_frsize);
    const auto bytes = [block](fsblkcnt_t blocks) {
        return static_cast<int64_t>(
                   std::min<uint64_t>(blocks, static_cast<uint64_t>(INT64_MAX / block))) *
               block;
    };
    if (block <= 0)
        return room;
    room = {.known = true, .free = bytes(about.f_bavail), .size = bytes(about.f_blocks)};
    return room;
}

int64_t fwu_room_little(const fwu_room &room)
{
    return std::min(room.size / PART, LITTLE_MAX);
}

bool fwu_room_is_little(const fwu_room &room, bool was)
{
    const int64_t little = fwu_room_little(room);
    return room.known && room.free < (was ? little + little / 4 : little);
}

std::string fwu_room_text(int64_t bytes)
{
    static constexpr const char *units[] = {"kB", "MB", "GB", "TB"};
    if (bytes < 1000)
        return std::to_string(bytes) + " bytes";
    auto value = static_cast<double>(bytes) / 1000;
    size_t unit = 0;
    while (value >= 999.95 && unit + 1 < std::size(units)) {
        value /= 1000;
        unit++;
    }
    char text[32];
    (void)snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    return text;
}
