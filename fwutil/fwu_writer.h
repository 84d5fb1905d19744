// Appending whole transactions to a forward log.  A transaction is collected in
// memory, in a spill file once it is large, and reaches the log at its commit,
// so the log never shows part of one that was given up.  Errors are reported on
// standard error where they are found; calls return 0 or -1.
#ifndef FWUTIL_FWU_WRITER_H
#define FWUTIL_FWU_WRITER_H

#include "fwutil/fwu_config.h"
#include "fwutil/fwu_entry.h"
#include "fwutil/fwu_items.h"
#include "fwutil/fwu_session.h"

#include <cstdint>
#include <span>
#include <sys/types.h>

struct fwu_writer; // opaque
struct fwu_retained;

// Opens the log of the configuration for appending and creates its directory
// when that is missing.  One writer at a time: another one's lock is an error.
// A torn tail, left by a writer that died, is cut back to the last whole
// transaction and the cut is reported.  Byte order and encoding of a log stay what they
// are: a configuration that says something else is an error.
int fwu_writer_open(fwu_writer **writer, const fwu_config &config);

// Takes from another configuration what may change while the log is open: the size of
// the files that begin from here on, log-keep, and sync, unless it or the one so far is
// FWU_SYNC_NONE.
void fwu_writer_configure(fwu_writer *writer, const fwu_config &config);

// Position of the last commit in the log; 0 when it holds none.
uint64_t fwu_writer_last_lsn(const fwu_writer *writer);

// The last commit in the log; all members are 0 when it holds none.
const fwu_commit &fwu_writer_last_commit(const fwu_writer *writer);

// Begins a transaction.  session may be null: no session is known.
int fwu_writer_begin(fwu_writer *writer, const fwu_session *session);

// The transaction's session from here on; what it was before holds for the records
// before.
int fwu_writer_session(fwu_writer *writer, const fwu_session &session);

// Adds one change.  opcode is FWU_OP_INSERT (after only), FWU_OP_UPDATE (both
// images) or FWU_OP_DELETE (before only); logtime in seconds since 1970.  The
// layout is put into the log where it is first used in a file or has changed.
// reclen is the length of each image and must be the layout's.  values are whole values of
// items that the images do not hold, at most one for an item of an image; they go into the
// log before the change.
int fwu_writer_record(fwu_writer *writer, int32_t opcode, const fwu_layout &layout, int64_t logtime,
                      int32_t reclen, const void *before_image, const void *after_image,
                      std::span<const fwu_value> values = {});

// Adds a mark to the transaction.
int fwu_writer_mark(fwu_writer *writer, const fwu_mark &mark);

// Appends the transaction to the log, in a new log file when the present one
// has reached its size.  After a failure the log ends with the transaction
// before it.  A transaction without records and marks appends nothing.
int fwu_writer_commit(fwu_writer *writer, const fwu_commit &commit);

// Forgets the transaction begun last.
void fwu_writer_rollback(fwu_writer *writer);

// Brings the log to disk (fsync), whatever the configuration's sync says.  Once
// that has failed it fails for good: the system may have dropped what it did not
// write, and only a new start looks at the file again.
int fwu_writer_sync(fwu_writer *writer);

// Brings to disk what sync asks for at this moment.  more_waits: the caller has
// further transactions at hand, which a grouped sync should wait for (but a
// second at most).
int fwu_writer_settle(fwu_writer *writer, bool more_waits);

// Milliseconds until fwu_writer_settle(writer, false) has something to do; 0: now,
// -1: nothing waits for it.
int fwu_writer_settle_in(const fwu_writer *writer);

// Records durably, in the log directory, that everything up to the last commit that
// is on disk is acknowledged, with sync none after a sync of its own; no work when
// nothing is new.  To be called before a source is told or a summary printed: a log
// that ends before what was acknowledged is refused from then on.
int fwu_writer_acknowledge(fwu_writer *writer);

// Whether a repair cut the log below what had been acknowledged; lsn is then the
// source's position up to which it had been, which may be behind what the log holds.
bool fwu_writer_lost(const fwu_writer *writer, uint64_t *lsn);
// Takes that mark away: whoever needs to know has been told.
int fwu_writer_accept_loss(fwu_writer *writer);

// What the texts in the images of this log are written in.
fwu_encoding fwu_writer_encoding(const fwu_writer *writer);

// Mode of the log's files, for what else is made beside them.
mode_t fwu_writer_file_mode(const fwu_writer *writer);

// Position of the last commit that counts as logged: on disk, unless sync says none,
// which counts a commit once it is appended.
uint64_t fwu_writer_logged_lsn(const fwu_writer *writer);

// Position of the last commit that this writer has brought to disk, whatever sync says: no power
// cut takes it.  0: none yet.
uint64_t fwu_writer_durable_lsn(const fwu_writer *writer);

// Looks after the age of the log, when it is time: removes old files that nothing keeps, and tells
// when the disk gets full (fwutil/fwu_retention.h).  To be called now and then, also while nothing
// is appended; a new log file has it done by itself.
void fwu_writer_tend(fwu_writer *writer);

// Milliseconds until fwu_writer_tend has something to do.
int fwu_writer_tend_in(const fwu_writer *writer);

// What it has found last.
const fwu_retained &fwu_writer_retained(const fwu_writer *writer);

// Syncs, releases the lock and frees the writer; null is allowed.  An open
// transaction is forgotten.
int fwu_writer_close(fwu_writer *writer);

#endif
