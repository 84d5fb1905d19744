// The printed report of a status file.
#ifndef FWUTIL_FWU_REPORT_H
#define FWUTIL_FWU_REPORT_H

// As Fwu_status.
int fwu_report_status(const char *status, bool verbose);

#endif
