// When the capture files of a run are brought to disk, so that a position that is on
// disk never names records that are not.
#ifndef CAPTURE_SYNC_H
#define CAPTURE_SYNC_H

struct capfil;
struct capinfo;

// Begins a session: nothing written yet, nobody has asked.
void capture_sync_begin();

// Notes that a file was opened, made or begun anew: due behind the record in hand.
void capture_sync_soon();

// Whether to bring the files to disk at a moment of FWU_AT_...: 1 now, 0 not now, -1
// never.  Asking tells that the library forces its position itself.
int capture_sync_due(int when);

// Whether the library has asked.
bool capture_sync_asked();

// Brings what was written to disk.  Returns the mark of it, a line for each file:
// its kind, inode (0: it is not there), end, the checksum of its tail, its path; valid
// until the next call.  Null: failed (reported), now or before in this session.
const char *capture_sync(capinfo *ci);

// For a library that does not ask: brings the files to disk behind a record when
// that is due, and at the end of the session.  0 or -1 (reported).
int capture_sync_record(capinfo *ci);
int capture_sync_end(capinfo *ci);

// Brings one open file to disk before it is closed.  0 or -1 (reported).
int capture_sync_file(capfil *cf);

// Brings to disk what the files of a mark hold, which a run that was killed has not; with
// an empty mark everything that the system has.
// 0 or -1 (reported).
int capture_keep(const char *mark);

// Takes away what the files of a mark hold behind it, which comes again.  0 or -1
// (reported).
int capture_resume(const char *mark);

#endif
