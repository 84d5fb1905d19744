// The forward-log library's calls, C linkage.  libfwutil.so exports these and
// nothing else, so that any other library with the same calls can take its
// place.  One thread at a time; pointers handed out belong to the library.
#ifndef FWUTIL_FWUTIL_H
#define FWUTIL_FWUTIL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Operation codes that the record callback receives.
#define FWU_OP_UPDATE 1
#define FWU_OP_INSERT 3
#define FWU_OP_DELETE 5

// Called once per insert, update and delete record of a committed transaction,
// in log order.  logtime is in seconds since 1970, reclen the length in bytes
// of one image.  before_image is null for an insert, after_image null for a
// delete.  Names and images are valid until the callback returns.  Result: 0
// to go on; anything else stops Fwu_process at this record.
typedef int (*fwu_callback)(uint32_t reserved, const char *dbname, const char *dsetname,
                            int32_t logtime, int32_t opcode, int32_t recnum, int32_t reclen,
                            const void *before_image, const void *after_image);

// Delivers the log's records to the callback.  cfg: configuration file, or null
// for the file named by FWUTIL_CFG, else "fwutil.cfg".  status: status file, or
// null for "fwutil.status".  start: log file number ("25", "1-25") or full position
// ("1-25.340"), or null to go on behind the position in the status file (the
// oldest record when that names none).  Returns 0 at the end of the data when
// Fwu_synconly is set and on SIGTERM or SIGINT, which it handles for the length
// of the call; otherwise waits for more records.  Nonzero after an error, which
// it has reported on standard error, or when the callback returned nonzero; that
// record is delivered again by the next run.
int Fwu_process(fwu_callback callback, const char *cfg, const char *status, const char *start);

// Nonzero: report on standard error what is opened, where reading starts,
// waits and why it stops.
void Fwu_verbose(int on);

// Nonzero: Fwu_process returns at the end of the data present.
void Fwu_synconly(int on);

// Prints the contents of the status file (null: "fwutil.status") and how far it
// is behind the end of the log on standard output; more with verbose nonzero.
// Returns 0, or nonzero after an error reported on standard error.
int Fwu_status(const char *status, int verbose);

// Prints the library's name and version, one line, on standard output.
void Fwu_version(void);

// Next item of the dataset of the record being delivered: returns 1 and sets
// name (at most 17 bytes and a NUL, valid until the callback returns) and the
// four words; returns 0 and sets nothing after the last item, and starts again
// with the first item at the next call.  Any pointer may be null.
int Fwu_get_item(const char **name, int32_t *type, int32_t *size, int32_t *count,
                 int32_t *item_aux);

// Position of the record delivered last; before the first record the position
// at which reading started, 0 when that was the beginning of the log.
int Fwu_CurrentLogGeneration(void);
int Fwu_CurrentLogSequence(void);
int Fwu_CurrentTagSequence(void);

// Text of the entry "pname", "user", "login", "pid" or "info" of the session
// that made the current change, valid until the callback returns; null when
// there is none, for any other key and for null.
const char *Fwu_get_session_entry(const char *key);

// Number of data elements of that session, and the text of one of them (null
// for an index outside 0 to the number less 1).
int Fwu_get_session_elements(void);
const char *Fwu_get_session_data(int index);

// Functions that a program may define.  With the first four a position is never on disk
// before what the callback wrote for it; the others tell it how reading goes.  The library looks
// for them when it is loaded; each may be left out.  They are called on the thread of Fwu_process
// and call nothing of this library but the Fwu_Current... calls.
#if defined(__GNUC__)
#define FWU_HOOK __attribute__((visibility("default")))
#else
#define FWU_HOOK
#endif

// Moments at which Fwu_hook_sync_due is asked.
#define FWU_AT_START 0  // before the first record
#define FWU_AT_RECORD 1 // behind each record whose callback returned 0
#define FWU_AT_REST 2   // nothing came for 200 ms, asked again until it is forced
#define FWU_AT_END 3    // before Fwu_process returns

// Whether to force the position to disk now: 0 not now, 1 now.  At FWU_AT_START it is
// forced unless the answer is -1, which means for the whole run: the position is never
// forced, and counts as it is even after a power cut.  Without this function it is
// forced when reading rests, once a minute while it does not, and at the end.
FWU_HOOK int Fwu_hook_sync_due(int when);

// Brings to disk what the callback has written; called before a position is forced.
// Returns a text that is kept with the position (lines, valid until the next call;
// "" is one), or null: it failed and has been reported, Fwu_process returns nonzero, and
// the next start goes on behind the position that was forced before.
FWU_HOOK const char *Fwu_hook_sync(void);

// Called at a start behind a power cut (the system has been started anew since), or
// behind a run that could not bring something to disk (the system may have dropped it),
// before FWU_AT_START and the first record: mark is the text that was kept with the
// position behind which reading goes on; what the callback wrote after it comes again and
// is to be taken away.  0; nonzero: it failed and has been reported, and Fwu_process
// returns nonzero with the position as it was.
FWU_HOOK int Fwu_hook_resume(const char *mark);

// Called at a start without a power cut, before FWU_AT_START and the first record, when
// a run before this one left the position in the status file further on than the one
// that was forced: it was killed.  mark is the text that was kept then.  What the
// callback wrote after it does not come again, so that all of it is to be brought to
// disk now: the position is forced next.  An empty mark stands for everything: that run
// forced nothing or kept no text, or the status file is too old or too damaged to tell.
// Called with a start position as well.  0; nonzero: it failed and has been reported,
// Fwu_process returns nonzero, and the next start goes on behind the position that was
// forced.
FWU_HOOK int Fwu_hook_keep(const char *mark);

// What Fwu_hook_look is told.
#define FWU_LOOK_OPEN 0    // the log is open, and the place to begin at is found
#define FWU_LOOK_WAITING 1 // the log has nothing more for now; at least once a second until it has
#define FWU_LOOK_ERROR 2   // text is what the library has just reported as an error

// Tells the program how reading goes, on the thread that called the library.  text is
// null but for FWU_LOOK_ERROR, and valid until the function returns; an error may also
// come outside Fwu_process.
FWU_HOOK void Fwu_hook_look(int what, const char *text);

// Called each time before reading waits for more records, which is once a second at
// least.  SIGHUP is held back from this call to the wait, and a handled signal ends the
// wait: what the program's handler has noted is found here at once.  0; 1: the position
// is forced now, with a new text, also when nothing came since it was forced; negative:
// something failed and has been reported, and Fwu_process returns nonzero with the position
// as it was.
FWU_HOOK int Fwu_hook_wait(void);

#ifdef __cplusplus
}
#endif

#endif
