// The files that a run reads and writes beside the log, by their names: none may be another
// one of them, or a file of the log.
#ifndef DRIVER_OWN_FILES_H
#define DRIVER_OWN_FILES_H

#include <string>

struct capinfo;

// The reader's files where the command line names none (null).
const char *own_config_file(const char *cfgfile);
const char *own_status_file(const char *statfile);

// "fw0001-00000025.log": the name of a forward log's file.
bool is_log_file_name(const char *name);

// Whether a forward log is in the directory; none that cannot be read is known to hold one.
bool holds_a_log(const std::string &directory);

// Refuses a capture file, PID file or status file whose beginning would be the end of another
// file of the run, of a file of a log, or of a message file's records.  Pipes and devices may
// have several uses.  0 or the code of the message; nothing is opened for writing.
int own_files_check(const capinfo *ci, const char *pidfile, const char *cfgfile,
                    const char *statfile);

#endif
