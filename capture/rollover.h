// The size limit of message capture files.
#ifndef CAPTURE_ROLLOVER_H
#define CAPTURE_ROLLOVER_H

#include <cstdint>

// The limit in bytes: KESTRO_MAXCAP from the environment, or 64 KiB below 2 GiB.
int32_t get_cap_maxbytes();

#endif
