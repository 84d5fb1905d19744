// A run over the log: from the start position on, each record to the callback,
// its position into the status file.
#ifndef FWUTIL_FWU_PROCESS_H
#define FWUTIL_FWU_PROCESS_H

#include "fwutil/fwutil.h"

// As Fwu_process; sync_only: return at the end of the data present.
int fwu_process_run(fwu_callback callback, const char *cfg, const char *status, const char *start,
                    bool sync_only);

#endif
