/* Message files: an ordinary disk file that several processes share as a
 * first-in-first-out queue of variable-length records.  Writers append at the
 * end; readers take from the front, or read without removing.
 *
 * Results    0 or more is success; a negative result is one of the TMF_E codes
 *            below, which is also kept in the handle for tmf_geterrno and
 *            tmf_geterrmsg.  A success does not clear an earlier code.  A few
 *            failures give 1: a lock that another process holds unexpectedly.
 * Handles    belong to the caller from tmf_fopen to tmf_fclose, which frees them
 *            in every case.  One thread at a time uses the handles of a file, and
 *            one thread at a time opens files.  A null handle gives TMF_EHANDLE
 *            (kept where a failed open keeps its code), unless a call says
 *            otherwise.
 * Memory     Buffers are the caller's and are not kept.  Lengths are in bytes.
 * Processes  Readers and writers run on one host, on a file system with POSIX
 *            record locks.  A handle is not inherited: after a fork only the
 *            process that opened it may use it.  Descriptors and sockets are
 *            close-on-exec.
 * One file   A process does not conflict with its own locks, and closing any
 *            descriptor of a file drops all that it has on it.  So a file is
 *            opened once per process and by nothing but this library while it is
 *            open; use stat or tmf_getinfo for its size.  Opened twice and used by
 *            one thread, a file stays intact, but each open takes the process's
 *            other handles for dead users and frees their slots, and when one of
 *            the handles is closed other processes do so as well.
 * Locks      Every call that looks at the file first waits for the file's common
 *            lock, which other processes hold for the length of one call.  There
 *            is no time limit to that wait; a signal whose handler was set
 *            without SA_RESTART ends it with TMF_ELOCK_WAIT.  (A read goes by what
 *            it knew last then: see tmf_fread.)
 * Threads    Several threads may use a file each, in several processes, too.  The
 *            system looks for deadlocks by process and refuses some of their locks;
 *            since no call waits for one file while it holds another, these are
 *            tried again after a pause of 0.1 ms until they are had (a signal
 *            within a pause does not end the wait).
 * Signals    The library sets no handlers.  A write beyond the file size limit
 *            raises SIGXFSZ; a caller that ignores it gets TMF_EWRITE_DATA,
 *            TMF_EWRITE_DATA_EOF or, while it opens a new file, a TMF_EINIT_ or
 *            _LOCKS code.
 * Codes      What a call can give stands behind "Codes:" in its comment, where "those
 *            of the bracket" are what each call on a handle can give that looks at
 *            the file: TMF_EHANDLE (no handle, a closed descriptor), TMF_ELOCK_WAIT,
 *            TMF_EUNLOCK (what the call did is done), TMF_ESEEK_COMMON,
 *            TMF_ESEEK_COMMON_EOF, TMF_EREAD_COMMON, TMF_EREAD_COMMON_EOF,
 *            TMF_EWRITE_COMMON, TMF_EWRITE_COMMON_EOF, TMF_ENOTMSG,
 *            TMF_EINCOMPATIBLE (made another file, or opened by a host of the other
 *            byte order, since the open).
 * Bad files  A damaged or foreign file gives a code, never an access outside the
 *            caller's buffer; what cannot be read stays in the file.
 *
 * The format and the protocol are described in docs/message-file.md.
 */
#ifndef MSGFILE_TMF_H
#define MSGFILE_TMF_H

#if defined(__GNUC__)
#define TMF_API __attribute__((visibility("default")))
#else
#define TMF_API
#endif

/* The library's version, also as one number, 1000 times the first part and the
 * second: "#if TMF_VERSION >= 1001" asks for 1.1.  The first part is that of the
 * shared library's soname, libtmf.so.1, and changes when programs have to be compiled
 * again; the second grows with what is added. */
#define TMF_VERSION_MAJOR 1
#define TMF_VERSION_MINOR 1
#define TMF_VERSION (TMF_VERSION_MAJOR * 1000 + TMF_VERSION_MINOR)
#define TMF_VERSION_TEXT "1.1"

#ifdef __cplusplus
extern "C" {
#endif

/* An open message file. */
typedef struct tmf_handle tmf_handle;

/* A record of a call for many of them. */
typedef struct {
    const void *data; /* its bytes */
    int length;       /* their number */
} tmf_item;

/* Mode bits of tmf_fopen.  0 opens as a writer. */
#define TMF_MODE_READ 1      /* open as a reader */
#define TMF_MODE_EXCLUSIVE 2 /* no other user of the same kind, now or while it is open */
#define TMF_MODE_COPY 4      /* read all records without removing any; needs 1 and 2 as well */
                             /* (open again behind a repair that cut off what was read: -5229) */
#define TMF_MODE_ALL_USERS 8 /* create with permissions 0666 whatever the umask, not 0600 */

/* Flag bits of tmf_fread and tmf_freadx. */
#define TMF_READ_KEEP 1   /* leave the record in the file */
#define TMF_READ_WAIT 2   /* wait for a record even when no writer is registered */
#define TMF_READ_LIMIT 4  /* limit the wait to a number of seconds */
#define TMF_READ_SIGNAL 8 /* a signal ends the wait with TMF_ESIGNAL */

/* Items of tmf_getinfo. */
#define TMF_INFO_RECORDS 1      /* records in the file */
#define TMF_INFO_READERS 2      /* readers registered */
#define TMF_INFO_WRITERS 3      /* writers registered */
#define TMF_INFO_DESCRIPTOR 4   /* the handle's file descriptor; stays the handle's */
#define TMF_INFO_WRITE_OFFSET 5 /* used length of the file: offset behind the last record */

/* Items of tmf_finfo. */
#define TMF_FINFO_ZERO 1       /* always 0 */
#define TMF_FINFO_RECORD_END 2 /* writer: behind its last record; reader: start of its last */

#define TMF_MAX_DATA 32761  /* longest record in bytes of data */
#define TMF_ERRMSG_SIZE 256 /* a buffer of this size holds every text of tmf_geterrmsg */

/* Error codes, from the last to the first; those marked "reserved" are never
 * produced on this platform, those marked "not given" by no call. */
enum {
    TMF_ESIGNAL = -5282,            /* a signal ended the wait (TMF_READ_SIGNAL) */
    TMF_EMPE_ACCESS = -5281,        /* reserved, as all TMF_EMPE_ codes */
    TMF_EMPE_NOTMSG = -5280,        /* reserved */
    TMF_EMPE_WRITE_EOF = -5279,     /* reserved */
    TMF_EMPE_CONTROL_WAIT = -5278,  /* reserved */
    TMF_EMPE_CONTROL_LIMIT = -5277, /* reserved */
    TMF_EMPE_CONTROL_NDR = -5276,   /* reserved */
    TMF_EMPE_WRITE = -5275,         /* reserved */
    TMF_EMPE_READ = -5274,          /* reserved */
    TMF_EMPE_READ_EOF = -5273,      /* reserved */
    TMF_EMPE_INFO = -5272,          /* reserved */
    TMF_EMPE_CLOSE = -5271,         /* reserved */
    TMF_EINTERRUPT = -5270,         /* not given: a signal interrupted a round of a wait */
    TMF_ENONAME = -5269,            /* tmf_fopen without a file name */
    TMF_ETIMEOUT = -5268,           /* the time of a limited wait is over */
    TMF_EPLATFORM = -5267,          /* reserved */
    TMF_ECOPYMODE = -5266,          /* copy mode, or removing, without exclusive read */
    TMF_ETRUNCATE = -5265,          /* an emptied file could not be cut down */
    TMF_EPORTBUSY = -5264,          /* 15 UDP ports in a row are in use */
    TMF_EWRITER_PRESENT = -5263,    /* exclusive writing asked for beside a writer */
    TMF_EREADER_PRESENT = -5262,    /* exclusive reading asked for beside a reader */
    TMF_EWRITER_EXCLUSIVE = -5261,  /* a writer has the file exclusively */
    TMF_EREADER_EXCLUSIVE = -5260,  /* a reader has the file exclusively */
    TMF_EINFO = -5259,              /* unknown item of tmf_getinfo */
    TMF_ECOMMIT = -5258,            /* reserved */
    TMF_EREAD_WRITER_EOF = -5257,   /* not given */
    TMF_EREAD_WRITER = -5256,       /* not given */
    TMF_EREAD_READER_EOF = -5255,   /* not given */
    TMF_EREAD_READER = -5254,       /* not given: a slot that cannot be read is freed */
    TMF_EBADSIGNAL = -5253,         /* not given: no wake-up is refused */
    TMF_ENONBLOCK = -5252,          /* system error on the waiting socket's mode */
    TMF_ERECEIVE = -5251,           /* system error while waiting for a wake-up */
    TMF_ESEND = -5250,              /* system error while waking a reader */
    TMF_ENETSTOP = -5249,           /* reserved */
    TMF_ENETSTART = -5248,          /* reserved */
    TMF_EWRITE_WRITER_EOF = -5247,  /* a writer's slot could not be written whole */
    TMF_EWRITE_WRITER = -5246,      /* a writer's slot could not be written */
    TMF_ESEEK_WRITER = -5245,       /* a writer's slot is no place in the file */
    TMF_EWRITER_LOCKED = -5244,     /* not given */
    TMF_EWRITE_READER_EOF = -5243,  /* a reader's slot could not be written whole */
    TMF_EWRITE_READER = -5242,      /* a reader's slot could not be written */
    TMF_ESEEK_READER = -5241,       /* a reader's slot is no place in the file */
    TMF_EREADER_LOCKED = -5240,     /* not given: a slot that another process has is 1 */
    TMF_EUNLOCK = -5239,            /* an unlock failed */
    TMF_ELOCK_TEST = -5238,         /* a lock could not be tested */
    TMF_ELOCK_NOWAIT = -5237,       /* a slot lock failed */
    TMF_ELOCK_WAIT = -5236,         /* the wait for a lock failed or was interrupted */
    TMF_EHANDLE = -5235,            /* no handle, or a descriptor that cannot seek */
    TMF_EINTERNAL = -5234,          /* bookkeeping that does not agree; out of memory */
    TMF_EMAXREADERS = -5233,        /* 16 readers are registered */
    TMF_EMAXWRITERS = -5232,        /* 1008 writers are registered */
    TMF_EWRITE_ACCESS = -5231,      /* a read on a writer's handle */
    TMF_EREAD_ACCESS = -5230,       /* a write on a reader's handle */
    TMF_EREAD_DATA_EOF = -5229,     /* a record is cut off or its length is wrong */
    TMF_EREAD_DATA = -5228,         /* a record could not be read */
    TMF_EWRITE_DATA_EOF = -5227,    /* a record could not be written whole: disk full */
    TMF_EWRITE_DATA = -5226,        /* a record could not be written */
    TMF_ESEEK_DATA_EOF = -5225,     /* a record's offset is outside the data area */
    TMF_ESEEK_DATA = -5224,         /* a record's offset is no place in a file (2 GiB) */
    TMF_EWRITE_COMMON_EOF = -5223,  /* the common area could not be written whole */
    TMF_EWRITE_COMMON = -5222,      /* the common area could not be written */
    TMF_EREAD_COMMON_EOF = -5221,   /* the file is shorter than the common area */
    TMF_EREAD_COMMON = -5220,       /* the common area could not be read */
    TMF_ESEEK_COMMON_EOF = -5219,   /* a seek to the common area went elsewhere */
    TMF_ESEEK_COMMON = -5218,       /* a seek to the common area failed */
    TMF_EBUFFER_SIZE = -5217,       /* a negative buffer length; no buffer */
    TMF_ERECORD_SIZE = -5216,       /* a record of less than 1 or too many bytes; no data */
    TMF_EFORMAT = -5215,            /* a record format other than 2 */
    TMF_ESEEK_LOCKS_EOF = -5214,    /* new file: a seek to the lock area went elsewhere */
    TMF_ESEEK_LOCKS = -5213,        /* new file: a seek to the lock area failed */
    TMF_EWRITE_LOCKS_EOF = -5212,   /* new file: the lock area could not be written whole */
    TMF_EWRITE_LOCKS = -5211,       /* new file: the lock area could not be written */
    TMF_EINCOMPATIBLE = -5210,      /* an unknown byte order, or one that changed */
    TMF_ENOTMSG = -5209,            /* not a message file */
    TMF_EINIT_WRITE_EOF = -5208,    /* new file: the common area could not be written whole */
    TMF_EINIT_WRITE = -5207,        /* new file: the common area could not be written */
    TMF_EINIT_READ = -5206,         /* the first read of the common area failed */
    TMF_EOPEN = -5205,              /* the system refuses to open the file */
    TMF_EUNUSED_1 = -5204,          /* reserved */
    TMF_EPERMISSION_1 = -5203,      /* reserved */
    TMF_EPERMISSION_2 = -5202,      /* reserved */
    TMF_EDELETE = -5201             /* reserved */
};

/* Opens the message file at path and registers the caller as a reader or a
 * writer.  A file that does not exist or is empty becomes a new message file.
 * path: not null, not empty.  mode: TMF_MODE_ bits, others are ignored.
 * Users that died without closing are removed first.  A file written in the
 * other byte order is converted, which wants no other user at that time.
 * Waiting readers are not woken.
 * Returns the handle, or null; then tmf_geterrno(NULL) and tmf_geterrmsg(NULL, ..)
 * tell why.
 * Codes: TMF_ENONAME, TMF_ECOPYMODE, TMF_EOPEN (with the system's text);
 * TMF_EHANDLE, TMF_ELOCK_WAIT, TMF_ELOCK_NOWAIT, TMF_ELOCK_TEST, TMF_EUNLOCK (not a
 * file that can seek and be locked); TMF_ENOTMSG, TMF_EINCOMPATIBLE, TMF_EFORMAT (a
 * foreign file: left unchanged); TMF_EMAXREADERS, TMF_EMAXWRITERS,
 * TMF_EREADER_EXCLUSIVE, TMF_EWRITER_EXCLUSIVE, TMF_EREADER_PRESENT,
 * TMF_EWRITER_PRESENT (no place for this user); TMF_EINIT_READ; TMF_EINIT_WRITE,
 * TMF_EINIT_WRITE_EOF (the new file is empty again), TMF_ESEEK_LOCKS,
 * TMF_ESEEK_LOCKS_EOF, TMF_EWRITE_LOCKS, TMF_EWRITE_LOCKS_EOF (a new file);
 * TMF_ESEEK_COMMON, TMF_ESEEK_COMMON_EOF, TMF_EWRITE_COMMON, TMF_EWRITE_COMMON_EOF;
 * TMF_ESEEK_READER, TMF_ESEEK_WRITER (damaged slots), TMF_EWRITE_READER,
 * TMF_EWRITE_READER_EOF, TMF_EWRITE_WRITER, TMF_EWRITE_WRITER_EOF (the own slot);
 * TMF_EINTERNAL (counts and maps do not agree, or out of memory); and 1 (the slot is
 * locked by a process that did not register). */
TMF_API tmf_handle *tmf_fopen(const char *path, int mode);

/* Removes the caller's registration, closes the file and frees the handle, in
 * every case.  A writer first wakes all waiting readers, so that those that wait
 * for a writer's next record see that it has gone; a reader wakes nobody.  0 or a
 * code, after which the registration may still be in the file and is removed by the
 * next user that opens it.
 * Codes: those of the bracket. */
TMF_API int tmf_fclose(tmf_handle *h);

/* Appends one record and wakes all waiting readers.
 * buf: the data.  len: its length, 1 to TMF_MAX_DATA.
 * Returns 0 or a code.
 * Codes: TMF_EREAD_ACCESS, TMF_ERECORD_SIZE, TMF_ESEEK_DATA, TMF_EWRITE_DATA,
 * TMF_EWRITE_DATA_EOF, TMF_EINTERNAL (out of memory; behind all of these nothing was
 * appended and the same call may be repeated); TMF_ESEEK_DATA_EOF (a damaged file);
 * TMF_ESEND (the record is in the file, but a reader could not be woken: do not
 * repeat the call); those of the bracket. */
TMF_API int tmf_fwrite(tmf_handle *h, const void *buf, int len);

/* Appends count records under one lock, with one write of their data, and wakes all
 * waiting readers once: all records, one behind the other in the order of items, or,
 * behind a code, none.  A process that is killed has appended all or none.
 * items: the data of each and its length, 1 to TMF_MAX_DATA; may be null when count is 0.
 * count: 0 or more; with 0 nothing is done.  The handle keeps memory for the longest call
 * that it has made.
 * Returns 0 or a code.
 * Codes: those of tmf_fwrite (TMF_ERECORD_SIZE for a count below 0 or no items, too;
 * TMF_ESEEK_DATA: no record begins behind 2 GiB; TMF_ESEND: all records are in the file). */
TMF_API int tmf_fwrite_many(tmf_handle *h, const tmf_item *items, int count);

/* Takes the first record, or reads it and leaves it (TMF_READ_KEEP).  In copy
 * mode reads the records one after the other, removing none and never waiting.
 * buf: receives the data; may be null when len is 0.  len: its size, 0 or more.
 * Data beyond len is lost with the record.  flags: TMF_READ_ bits.
 * Without a record the call waits while a writer is registered, or with
 * TMF_READ_WAIT, or when this handle has not read anything yet; without a time
 * limit the wait may last forever.  TMF_READ_LIMIT waits 4 seconds at most.  Time
 * counts by rounds of at most 60 seconds: whole for a round in which nothing
 * happened or that a signal ended (without TMF_READ_SIGNAL), not at all for one
 * that another process's wake-up ended.  No other reader is woken.
 * Returns the number of bytes put into buf; 0 when there is no record and no
 * reason to wait: end of file (also after a record was taken with len 0).  Or a code.
 * When the lock failed, or the read of the common area behind it, the call goes by that
 * area as it was read last: it may end with TMF_EINTERNAL instead of that code, still
 * wait and return a record, or, in copy mode, pass over one record, which its code then
 * stands for.
 * Codes: TMF_EWRITE_ACCESS, TMF_EBUFFER_SIZE, TMF_ETIMEOUT, TMF_ESIGNAL;
 * TMF_EREAD_DATA, TMF_EREAD_DATA_EOF, TMF_ESEEK_DATA, TMF_ESEEK_DATA_EOF (the record
 * stays in the file); TMF_ETRUNCATE (it is removed, and in buf); TMF_EPORTBUSY,
 * TMF_ERECEIVE, TMF_ENONBLOCK (waiting failed); TMF_ELOCK_TEST, TMF_ESEEK_READER,
 * TMF_ESEEK_WRITER (looking for dead users); TMF_EINTERNAL (out of memory); those of
 * the bracket (behind a failed write of the common area the record may be removed). */
TMF_API int tmf_fread(tmf_handle *h, void *buf, int len, int flags);

/* Takes up to count records under one lock, or reads them and leaves them (TMF_READ_KEEP).
 * Waits for the first one as tmf_fread does, and takes with it those that are there and
 * fit whole into what is left of buf.  In copy mode reads the next ones.  A process that
 * is killed has taken all that the call would have given, or none.
 * items: receives where the data of each lies in buf, one behind the other, and how many
 * bytes; null and 0 for those that did not come.  count: their number, 0 or more; with 0
 * nothing is done.  buf: receives the data; may be null when len is 0.  len: its size, 0
 * or more: the first record's data beyond it is lost with the record, as by tmf_fread.
 * Returns the number of records; 0 when there is none, as tmf_fread does.  Or a code.
 * A record behind the first that cannot be read ends what is taken; its code is that of
 * the next call.
 * Codes: those of tmf_fread (TMF_EBUFFER_SIZE for a count below 0 or no items, too;
 * TMF_ETRUNCATE: they are removed, and in buf). */
TMF_API int tmf_fread_many(tmf_handle *h, tmf_item *items, int count, void *buf, int len,
                           int flags);

/* Removes the first count records, all of them or, behind a code, none: those that were
 * read with TMF_READ_KEEP, once what they say is done, so that a reader that is killed
 * gets them again.  h: a reader opened with TMF_MODE_EXCLUSIVE, since another reader
 * could have taken them, and not in copy mode.  count: 0 or more; with 0 nothing is done.
 * Returns 0 or a code.
 * Codes: TMF_EWRITE_ACCESS, TMF_ECOPYMODE (not opened exclusively, or in copy mode),
 * TMF_EBUFFER_SIZE (a count below 0), TMF_EREAD_DATA_EOF (there are not so many, or one
 * is damaged), TMF_EREAD_DATA, TMF_ESEEK_DATA, TMF_ESEEK_DATA_EOF, TMF_EINTERNAL (out of
 * memory); TMF_ETRUNCATE (they are removed); those of the bracket (behind a failed write
 * of the common area they may be removed). */
TMF_API int tmf_fremove(tmf_handle *h, int count);

/* As tmf_fread with TMF_READ_LIMIT and TMF_READ_SIGNAL, and a limit of
 * timeout_seconds (below 1: 4); the end of the time and a signal return 0, but
 * TMF_ETIMEOUT or TMF_ESIGNAL is kept in the handle.
 * Codes: those of tmf_fread but these two. */
TMF_API int tmf_freadx(tmf_handle *h, void *buf, int len, int flags, int timeout_seconds);

/* Stores facts about the file: pairs of an item (int, TMF_INFO_) and where to
 * store it (pointer to a 32-bit int, null to store nothing), ended by item 0.
 *   tmf_getinfo(h, TMF_INFO_RECORDS, &records, TMF_INFO_WRITERS, &writers, 0);
 * Users that died without closing are removed first.  Waiting readers are not woken.
 * Returns 0 or a code, which is not kept in the handle.
 * Codes: TMF_EINFO (at the first unknown item; those before it are stored);
 * TMF_ELOCK_TEST, TMF_ESEEK_READER, TMF_ESEEK_WRITER (looking for dead users); those
 * of the bracket. */
TMF_API int tmf_getinfo(tmf_handle *h, ...);

/* Stores what the handle itself knows; takes no lock and reads nothing.
 * item: TMF_FINFO_, stored as a 32-bit int when len is at least 4; any other
 * item fills len bytes with zeros.  out: may be null to store nothing.
 * Always 0, for a null handle too (which stores nothing). */
TMF_API int tmf_finfo(tmf_handle *h, int item, void *out, int len);

/* Always 0, for a null handle too: every change is in the file when its call returns.  The system
 * may still hold it in memory; a power cut can lose it, a killed process cannot. */
TMF_API int tmf_fflush(tmf_handle *h);

/* Does nothing; 0, for a null handle too. */
TMF_API int tmf_fctl(tmf_handle *h, ...);

/* The last error code of the handle, or of tmf_fopen for null; 0 for none. */
TMF_API int tmf_geterrno(const tmf_handle *h);

/* Writes the text of tmf_geterrno(h) with its terminating NUL into buf, which
 * holds TMF_ERRMSG_SIZE bytes, and returns buf (null for null).  h may be null.
 * The system's part of a text is given once: a second call leaves it out.  The
 * code stays. */
TMF_API char *tmf_geterrmsg(tmf_handle *h, char *buf);

/* The text of a code, of tmf_fclose and tmf_getinfo for instance, whose code no handle
 * keeps: a fixed text, never null, for as long as the program runs, from any thread.
 * Where tmf_geterrmsg has the system's part (TMF_EOPEN, TMF_ESEND, TMF_ERECEIVE,
 * TMF_ENONBLOCK) stands "(system error)"; a number that is no code has the text
 * "Message file error". */
TMF_API const char *tmf_strerror(int code);

/* Clears the handle's code.  Null is allowed and does nothing. */
TMF_API void tmf_clearerr(tmf_handle *h);

/* What tmf_check finds wrong: bits of tmf_check_result.found. */
#define TMF_FOUND_ZEROS 1   /* zeros instead of the beginning: it never came to the disk */
#define TMF_FOUND_CUT 2     /* the file ends before its records do */
#define TMF_FOUND_HOLE 4    /* a record's bytes never came to the disk */
#define TMF_FOUND_FRAME 8   /* what should be a record is none, or its two lengths differ */
#define TMF_FOUND_COUNT 16  /* the number of records is wrong */
#define TMF_FOUND_PLACE 32  /* the place of the first or the next record is none */
#define TMF_FOUND_USERS 64  /* the numbers of readers and writers are not those of the slots */
#define TMF_FOUND_FIXED 128 /* a number that every message file has alike is another one */

/* What became of the copy: tmf_check_result.aside. */
#define TMF_ASIDE_NONE 0   /* none was needed, or none asked for */
#define TMF_ASIDE_MADE 1   /* it is on the disk */
#define TMF_ASIDE_FAILED 2 /* it could not be made: the file is as it was */

/* A file as tmf_check finds it.  Records are counted from the oldest one on, up to the
 * first that is none. */
typedef struct tmf_check_result {
    int found;       /* TMF_FOUND_ bits; 0: nothing is wrong */
    int other_order; /* 1: its numbers have the other byte order; they keep it */
    int records;     /* whole records */
    int counted;     /* records that the file says it has */
    int uncounted;   /* whole records behind the end: a writer was killed, or the count of them
                        was lost; no damage, and no record of the file */
    int readers;     /* slots of readers taken; the users may have died */
    int writers;     /* slots of writers taken */
    int aside;       /* TMF_ASIDE_, set by tmf_repair */
    int changed;     /* 1: tmf_repair has changed the file */
    long long size;  /* of the file in bytes */
    long long first; /* offset of the oldest record */
    long long end;   /* where the file says that its records end */
    long long sound; /* where the whole records end */
} tmf_check_result;

/* Compares the records of a file that nobody in this process has open (the close at the
 * end drops the process's locks on it) with the numbers at its beginning.  The file is
 * not changed and not made; no user is registered.  A record's data is not looked at
 * but for holes: where the length in front of it and the one behind it are right it
 * counts as whole.  An empty file is a sound one.
 * path: not null, not empty.  result: receives what was found; all zeros on failure but
 * for size.  Null is allowed.
 * Returns 0, damaged or not, or a code, which is kept where that of a failed open is.
 * Codes: TMF_ENONAME, TMF_EOPEN, TMF_EHANDLE, TMF_ELOCK_WAIT, TMF_EUNLOCK,
 * TMF_ENOTMSG, TMF_EINCOMPATIBLE, TMF_EFORMAT, TMF_EREAD_COMMON,
 * TMF_EREAD_COMMON_EOF (not even a whole common area), TMF_EREAD_DATA, TMF_EINTERNAL
 * (out of memory). */
TMF_API int tmf_check(const char *path, tmf_check_result *result);

/* Cuts a file back to its last whole record, and puts the numbers at its beginning
 * right.  Readers, writers, wait list and stamp stay as they are, and the users may have
 * it open: they wait for the length of the call.  Those that opened it while numbers by
 * which slots are found were wrong (TMF_FOUND_FIXED) have their slot elsewhere; they are
 * taken for dead, and have to open it again.
 * keep_end: offset behind the last record to keep; 0 for all.  Up to it the caller
 * answers for the bytes, so that holes there are zeros that somebody wrote.  At or
 * before the oldest record: the file is emptied.
 * aside: where a copy of the file goes before it is changed, in place of a file that
 * has that name; null for none.  The copy is on the disk, under its name, before the
 * first byte of the file changes, and the change is on the disk when the call returns.
 * Killed at any place, the call leaves the file as it was, or repaired and whole; a
 * copy under that name is whole.  A part of one may be left as aside with ".part".
 * A file with nothing wrong and nothing to cut is left alone, and no copy is made.
 * result: what was found before the repair, changed and aside.  Null is allowed.
 * Returns 0 or a code, kept as that of tmf_check is.
 * Codes: those of tmf_check, TMF_EOPEN (with the system's text) for the copy, too, with
 * aside TMF_ASIDE_FAILED; TMF_EWRITE_COMMON, TMF_EWRITE_COMMON_EOF, TMF_ETRUNCATE,
 * TMF_EWRITE_DATA (the disk: the copy is there, repeat the call with another aside). */
TMF_API int tmf_repair(const char *path, int keep_end, const char *aside, tmf_check_result *result);

#ifdef __cplusplus
}
#endif

#endif
