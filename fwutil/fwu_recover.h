// Where a writer goes on in a log.
#ifndef FWUTIL_FWU_RECOVER_H
#define FWUTIL_FWU_RECOVER_H

#include "fwutil/fwu_log_end.h"

// Finds the log's end: reads the last file for its layouts, cuts a torn tail off
// and, when that file holds no transaction, asks older ones for the last record.
// directory, byte order, encodings and file mode are set.  0 or -1 (reported).
int fwu_recover(fwu_log_end &log);

#endif
