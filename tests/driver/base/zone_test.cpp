// Local time while the system's zone changes.
#include "driver/base/zone.h"

#include "tests/support/run.h"
#include "tests/support/tempdir.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

// A zone file of one zone so many seconds east of Greenwich.
static std::string zone_file(uint32_t east)
{
    std::string bytes = "TZif" + std::string(16, '\0'); // version 1, reserved bytes
    bytes += std::string(19, '\0') + '\1';              // counts: one type, ...
    bytes += std::string(3, '\0') + '\4';               // ... four characters
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(east >> shift);
    return bytes + std::string(2, '\0') + "XYZ" + '\0'; // no summer time, its name
}

static int hour_of(time_t time)
{
    struct tm tm = {};
    zone_local_time(time, &tm);
    return tm.tm_hour;
}

enum child_result { AS_EXPECTED, NO_NAMESPACE, FIRST_ZONE_WRONG, NOTHING_CHANGED };

// In a process with mounts of its own: /etc/localtime becomes one zone, then another.
static child_result change_zone(const tempdir &dir)
{
    const auto bind = [&](const char *name) {
        return mount(dir.file(name).c_str(), "/etc/localtime", nullptr, MS_BIND, nullptr) == 0;
    };
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return NO_NAMESPACE;
    unsetenv("TZ");
    if (!bind("east"))
        return NO_NAMESPACE;
    poll_until([start = time(nullptr)] { return time(nullptr) > start; });
    if (hour_of(1704067200) != 5)
        return FIRST_ZONE_WRONG;
    if (!bind("far-east"))
        return NO_NAMESPACE;
    poll_until([start = time(nullptr)] { return time(nullptr) > start; });
    return hour_of(1704067200) == 9 ? AS_EXPECTED : NOTHING_CHANGED;
}

TEST(Zone, AChangeOfTheSystemsZoneShowsFromTheNextSecondOn)
{
    const tempdir dir;
    write_file(dir.file("east"), zone_file(5 * 3600));
    write_file(dir.file("far-east"), zone_file(9 * 3600));
    const pid_t pid = fork();
    if (pid == 0)
        _exit(change_zone(dir));
    const int result = wait_program(pid);
    if (result == NO_NAMESPACE)
        GTEST_SKIP() << "no mounts of one's own, or no /etc/localtime";
    EXPECT_EQ(AS_EXPECTED, result);
}
