// Local time: localtime looks at the zone at each call, localtime_r need never do
// so again.  One look in a second is as good and spares its system call.
#include "driver/base/zone.h"

time_t zone_look()
{
    static time_t looked = -1;
    const time_t now = time(nullptr);
    if (now != looked) {
        tzset();
        looked = now;
    }
    return now;
}

void zone_local_time(time_t time, struct tm *out)
{
    (void)zone_look(); // only its effect counts here
    localtime_r(&time, out);
}
