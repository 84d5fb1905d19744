// The two statistics reports at the end of a run, on standard output.
#ifndef CAPTURE_REPORT_H
#define CAPTURE_REPORT_H

#include <cstdint>

struct capinfo;

// Names of the header options, valid until the next call; empty for none.
const char *hdroptsstr(uint32_t hdropts);

void show_capstats(const capinfo *ci); // records written, by capture file
void show_skipped(const capinfo *ci);  // records that no capture file took

#endif
