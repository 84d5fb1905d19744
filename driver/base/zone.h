// Local time for headers and log lines.
#ifndef DRIVER_BASE_ZONE_H
#define DRIVER_BASE_ZONE_H

#include <ctime>

// Looks at the system's zone again, once in a second at most, since it may change
// while a run goes on; returns the second for which the look holds.
time_t zone_look();

// The broken-down local time, by the zone of this second.
void zone_local_time(time_t time, struct tm *out);

#endif
