"""Message files for Python: files that several processes share as queues of records.

    import tmf

    with tmf.Writer("orders") as writer:
        writer.write(b"a record")

    with tmf.Reader("orders") as reader:
        for record in reader:
            print(record)

A module of the standard library's parts only, over libtmf.so.  Records are bytes, 1 to
MAX_DATA long.  Failures are raised as Error, with the library's code and text.  What
"shared", "exclusive" and "writers" mean, and the format, stands in docs/message-file.md.

A handle belongs to the process that opened it, behind a fork, too, and is used by one thread
at a time; a file is opened once per process, and by nothing else while it is open.  While a
call waits, other threads run, and Ctrl-C ends the wait.
"""

import collections
import ctypes
import enum
import os
import threading
import time

__all__ = ["Check", "Code", "Error", "Info", "MAX_DATA", "Reader", "Writer", "check"]

MAX_DATA = 32761  # bytes of the longest record


class Code(enum.IntEnum):
    """What calls fail with; Error.code is one of these, or 1."""

    ESIGNAL = -5282  # a signal ended the wait (TMF_READ_SIGNAL)
    ENONAME = -5269  # tmf_fopen without a file name
    ETIMEOUT = -5268  # the time of a limited wait is over
    ECOPYMODE = -5266  # copy mode, or removing, without exclusive read
    ETRUNCATE = -5265  # an emptied file could not be cut down
    EPORTBUSY = -5264  # 15 UDP ports in a row are in use
    EWRITER_PRESENT = -5263  # exclusive writing asked for beside a writer
    EREADER_PRESENT = -5262  # exclusive reading asked for beside a reader
    EWRITER_EXCLUSIVE = -5261  # a writer has the file exclusively
    EREADER_EXCLUSIVE = -5260  # a reader has the file exclusively
    EINFO = -5259  # unknown item of tmf_getinfo
    ENONBLOCK = -5252  # system error on the waiting socket's mode
    ERECEIVE = -5251  # system error while waiting for a wake-up
    ESEND = -5250  # system error while waking a reader
    EWRITE_WRITER_EOF = -5247  # a writer's slot could not be written whole
    EWRITE_WRITER = -5246  # a writer's slot could not be written
    ESEEK_WRITER = -5245  # a writer's slot is no place in the file
    EWRITE_READER_EOF = -5243  # a reader's slot could not be written whole
    EWRITE_READER = -5242  # a reader's slot could not be written
    ESEEK_READER = -5241  # a reader's slot is no place in the file
    EUNLOCK = -5239  # an unlock failed
    ELOCK_TEST = -5238  # a lock could not be tested
    ELOCK_NOWAIT = -5237  # a slot lock failed
    ELOCK_WAIT = -5236  # the wait for a lock failed or was interrupted
    EHANDLE = -5235  # no handle, or a descriptor that cannot seek
    EINTERNAL = -5234  # bookkeeping that does not agree; out of memory
    EMAXREADERS = -5233  # 16 readers are registered
    EMAXWRITERS = -5232  # 1008 writers are registered
    EWRITE_ACCESS = -5231  # a read on a writer's handle
    EREAD_ACCESS = -5230  # a write on a reader's handle
    EREAD_DATA_EOF = -5229  # a record is cut off or its length is wrong
    EREAD_DATA = -5228  # a record could not be read
    EWRITE_DATA_EOF = -5227  # a record could not be written whole: disk full
    EWRITE_DATA = -5226  # a record could not be written
    ESEEK_DATA_EOF = -5225  # a record's offset is outside the data area
    ESEEK_DATA = -5224  # a record's offset is no place in a file (2 GiB)
    EWRITE_COMMON_EOF = -5223  # the common area could not be written whole
    EWRITE_COMMON = -5222  # the common area could not be written
    EREAD_COMMON_EOF = -5221  # the file is shorter than the common area
    EREAD_COMMON = -5220  # the common area could not be read
    ESEEK_COMMON_EOF = -5219  # a seek to the common area went elsewhere
    ESEEK_COMMON = -5218  # a seek to the common area failed
    EBUFFER_SIZE = -5217  # a negative buffer length; no buffer
    ERECORD_SIZE = -5216  # a record of less than 1 or too many bytes; no data
    EFORMAT = -5215  # a record format other than 2
    ESEEK_LOCKS_EOF = -5214  # new file: a seek to the lock area went elsewhere
    ESEEK_LOCKS = -5213  # new file: a seek to the lock area failed
    EWRITE_LOCKS_EOF = -5212  # new file: the lock area could not be written whole
    EWRITE_LOCKS = -5211  # new file: the lock area could not be written
    EINCOMPATIBLE = -5210  # an unknown byte order, or one that changed
    ENOTMSG = -5209  # not a message file
    EINIT_WRITE_EOF = -5208  # new file: the common area could not be written whole
    EINIT_WRITE = -5207  # new file: the common area could not be written
    EINIT_READ = -5206  # the first read of the common area failed
    EOPEN = -5205  # the system refuses to open the file


Info = collections.namedtuple("Info", "records readers writers end")
Info.__doc__ = """A file as its user sees it: records in it, readers and writers registered, and the offset
behind its last record."""

Check = collections.namedtuple(
    "Check", "damage records counted uncounted readers writers size first end sound other_order"
)
Check.__doc__ = """A file as check() finds it: "damage" has a text for each thing that is wrong, the oldest
whole records are counted in "records" and end at "sound"; what the file itself says are
"counted", "first" and "end"."""

_MODE_READ = 1
_MODE_EXCLUSIVE = 2
_MODE_COPY = 4
_MODE_ALL_USERS = 8
_READ_KEEP = 1
_READ_LIMIT = 4
_READ_SIGNAL = 8
_INFO = (1, 2, 3, 5)  # the items of Info
_ERRMSG_SIZE = 256
_LONGEST = 65535  # bytes that a frame can state
_ROOM = 262144  # bytes of the records that one call gives
_MOST = 4096  # records that one call gives

# Seconds of a wait in the library, where another reader has taken what was there.
_ROUND = 1

# Seconds between two looks of a wait, which is not the library's, at first and later.
_SHORTEST_PAUSE = 0.001
_PAUSE = 0.02

_FOUND = (
    (1, "zeros where its beginning should be"),
    (2, "it ends before its records do"),
    (4, "there is a hole in its records"),
    (8, "what should be a record is none"),
    (16, "the number of records is wrong"),
    (32, "the place of its first or its next record is none"),
    (64, "the numbers of readers and writers are not those of their slots"),
    (128, "a number that every message file has alike is another one"),
)


class _Item(ctypes.Structure):
    """tmf_item."""

    _fields_ = [("data", ctypes.c_char_p), ("length", ctypes.c_int)]


class _CheckResult(ctypes.Structure):
    """tmf_check_result."""

    _fields_ = [
        (name, ctypes.c_int)
        for name in "found other_order records counted uncounted readers writers aside changed".split()
    ] + [(name, ctypes.c_longlong) for name in "size first end sound".split()]


def _load():
    """The library: LIBTMF names it, or it stands in the same installation, or where the
    system looks for libraries."""
    name = "libtmf.so.1"
    named = os.environ.get("LIBTMF")
    # PREFIX/lib/python3/dist-packages/tmf.py and PREFIX/lib/libtmf.so.1
    beside = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", name)
    if named:
        library = ctypes.CDLL(named)
    elif os.path.exists(beside):
        library = ctypes.CDLL(beside)
    else:
        library = ctypes.CDLL(name)
    handle, text, number = ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int
    for call, result, arguments in (
        ("tmf_fopen", handle, [text, number]),
        ("tmf_fclose", number, [handle]),
        ("tmf_fwrite", number, [handle, text, number]),
        ("tmf_fwrite_many", number, [handle, ctypes.POINTER(_Item), number]),
        ("tmf_fread_many", number, [handle, ctypes.POINTER(_Item), number, handle, number, number]),
        ("tmf_fremove", number, [handle, number]),
        ("tmf_freadx", number, [handle, handle, number, number, number]),
        ("tmf_getinfo", number, None),
        ("tmf_geterrno", number, [handle]),
        ("tmf_geterrmsg", handle, [handle, text]),
        ("tmf_strerror", text, [number]),
        ("tmf_check", number, [text, ctypes.POINTER(_CheckResult)]),
    ):
        function = getattr(library, call)
        function.restype = result
        if arguments is not None:
            function.argtypes = arguments
    return library


_lib = _load()

# One thread at a time opens files: a failed open keeps its code where the next one does, too.
_opening = threading.Lock()


class Error(Exception):
    """A call that failed: code (one of Code, or 1), text (the library's) and path."""

    def __init__(self, code, text, path):
        super().__init__(code, text, path)
        self.code = Code(code) if code in Code._value2member_map_ else code
        self.text = text
        self.path = path

    def __str__(self):
        return "%s: %s (%d)" % (self.path, self.text, self.code)


def _handle_error(code, handle, path):
    """The Error of a call whose code the handle keeps, or of an open for no handle."""
    buffer = ctypes.create_string_buffer(_ERRMSG_SIZE)
    _lib.tmf_geterrmsg(handle, buffer)
    return Error(code, buffer.value.decode("utf-8", "replace"), path)


def _code_error(code, path):
    """The Error of a code that no handle keeps."""
    return Error(code, _lib.tmf_strerror(code).decode("utf-8", "replace"), path)


def _name(path):
    """A path as the library takes it, which would end it at a NUL byte."""
    name = os.fsencode(path)
    if b"\0" in name:
        raise ValueError("%r: a file name has no NUL byte" % path)
    return name


class _File:
    """What readers and writers share."""

    def __init__(self, path, mode):
        self.path = os.fspath(path)
        self._handle = None
        name = _name(self.path)
        with _opening:
            handle = _lib.tmf_fopen(name, mode)
            if not handle:
                raise _handle_error(_lib.tmf_geterrno(None), None, self.path)
        self._handle = handle
        self._process = os.getpid()

    def _open_handle(self):
        if self._handle is None:
            raise ValueError("%s: the message file is closed" % self.path)
        if self._process != os.getpid():
            raise ValueError("%s: process %d has opened the message file" % (self.path, self._process))
        return self._handle

    def _take_handle(self):
        """The handle, for the last time.  None where it is closed, or another process's, whose
        registration a close would remove."""
        handle, self._handle = self._handle, None
        return handle if handle is not None and self._process == os.getpid() else None

    @property
    def closed(self):
        return self._handle is None

    def close(self):
        """Removes the registration and closes the file.  A second close does nothing, nor does
        one in a process that was forked from the one that opened it."""
        handle = self._take_handle()
        if handle is not None:
            code = _lib.tmf_fclose(handle)
            if code != 0:
                raise _code_error(code, self.path)

    def __enter__(self):
        self._open_handle()
        return self

    def __exit__(self, kind, value, trace):
        self.close()

    def __del__(self):
        # It has no handle when it could not be made.
        handle = self._take_handle() if getattr(self, "_handle", None) is not None else None
        if handle is not None:
            _lib.tmf_fclose(handle)

    def info(self):
        """Info of the file at this moment.  Users that died are removed first."""
        handle = self._open_handle()
        values = [ctypes.c_int32() for _ in _INFO]
        arguments = []
        for item, value in zip(_INFO, values):
            arguments += [ctypes.c_int(item), ctypes.byref(value)]
        code = _lib.tmf_getinfo(ctypes.c_void_p(handle), *arguments, ctypes.c_int(0))
        if code != 0:
            raise _code_error(code, self.path)
        return Info(*(value.value for value in values))


class Writer(_File):
    """Appends records to a file, which is created when it does not exist.

    exclusive: no other writer, now or while it is open.  all_users: a file that is created
    may be read and written by all users, else by its owner."""

    def __init__(self, path, *, exclusive=False, all_users=False):
        super().__init__(
            path,
            (_MODE_EXCLUSIVE if exclusive else 0) | (_MODE_ALL_USERS if all_users else 0),
        )

    def write(self, record):
        """Appends one record (bytes, or what can be made of a buffer) and wakes waiting readers.

        Behind an Error with Code.ESEND the record is in the file, a reader was not woken."""
        data = bytes(memoryview(record))
        code = _lib.tmf_fwrite(self._open_handle(), data, len(data))
        if code != 0:
            raise _handle_error(code, self._handle, self.path)

    def write_many(self, records):
        """Appends all of the records, or none: behind an Error but Code.ESEND, and when the program
        is killed.  Other users see all of them at once.  Much faster than write() for each."""
        data = [bytes(memoryview(record)) for record in records]
        items = (_Item * len(data))()
        for item, record in zip(items, data):
            item.data = record
            item.length = len(record)
        code = _lib.tmf_fwrite_many(self._open_handle(), items, len(data))
        if code != 0:
            raise _handle_error(code, self._handle, self.path)


class Reader(_File):
    """Takes records from the front of a file, the oldest first.

    As an iterator it waits while a writer has the file open, and ends when the file is
    empty and no writer is left.

    exclusive: no other reader, now or while it is open; records(remove="after") and peek() need it.
    keep: shows all records and removes none; waits with follow or timeout only, and needs the
    file alone.  create: a file that does not exist is made, else it is an error (FileNotFoundError)."""

    def __init__(self, path, *, exclusive=False, keep=False, create=False):
        if not create:
            os.stat(path)
        self.exclusive = exclusive or keep
        self.keep = keep
        self._buffer = ctypes.create_string_buffer(_LONGEST)
        self._known = 0  # records that were in the file, less those read since
        self._kept = 0  # records read of a file that keeps them
        super().__init__(
            path,
            _MODE_READ
            | (_MODE_EXCLUSIVE if self.exclusive else 0)
            | (_MODE_COPY if keep else 0),
        )

    def read(self, *, timeout=0, follow=False):
        """The oldest record, which is removed (with keep: the next one); None for none.

        timeout: seconds to wait for a record, whether there are writers or not; None waits
        while a writer has the file open (with keep: not at all).  follow: waits for ever."""
        return self._first(self._next(0, timeout, follow))

    def read_many(self, count, *, timeout=0, follow=False):
        """Up to count of the oldest records, which are removed (with keep: the next ones), as a
        list: those that are there once there is one, but no more than one call gives.  As read()
        else; beside other readers a wait may last up to 4 seconds longer."""
        return self._next(0, timeout, follow, self._number(count))

    def peek(self, *, timeout=0, follow=False):
        """The oldest record, which stays in the file; as read() else.  Of a reader alone only,
        since another one could take the record before this one removes it."""
        self._need_alone("peek()")
        return self._first(self._next(_READ_KEEP, timeout, follow))

    def peek_many(self, count, *, timeout=0, follow=False):
        """Up to count of the oldest records, which stay in the file; as read_many() else.  Of a
        reader alone only."""
        self._need_alone("peek_many()")
        return self._next(_READ_KEEP, timeout, follow, self._number(count))

    def remove(self, count=1):
        """Removes the oldest record, which peek() has given, or count of them, which peek_many()
        has given: all or none."""
        self._need_alone("remove()")
        handle = self._open_handle()
        if self._known < self._number(count) and self._look().records < count:
            raise ValueError(
                "%s: there %s to remove"
                % (self.path, "is no record" if count == 1 else "are not %d records" % count)
            )
        code = _lib.tmf_fremove(handle, count)
        if code < 0:
            raise _handle_error(code, handle, self.path)
        self._known -= count

    def records(self, *, follow=False, timeout=None, remove="before"):
        """Yields records.

        follow, timeout: as read(); without them it waits while a writer has the file open, and
        with keep not at all.
        remove: "before" takes a record from the file before it is yielded, so that no record
        comes twice, and one in hand is lost with the program; "after" when the next one is asked for, so that
        no record is lost, and one in hand comes again."""
        if remove not in ("before", "after"):
            raise ValueError('remove is "before" or "after"')
        if remove == "before" or self.keep:
            while (record := self.read(timeout=timeout, follow=follow)) is not None:
                yield record
            return
        while (record := self.peek(timeout=timeout, follow=follow)) is not None:
            yield record
            self.remove()

    def __iter__(self):
        return self.records()

    def _need_alone(self, what):
        if self.keep or not self.exclusive:
            raise ValueError("%s needs a reader with exclusive=True that is not keep=True" % what)

    @staticmethod
    def _number(count):
        if count < 1:
            raise ValueError("a number of records is 1 or more")
        return count

    @staticmethod
    def _first(records):
        return records[0] if records else None

    def _look(self):
        found = self.info()
        self._known = max(found.records - self._kept, 0)
        return found

    def _next(self, flags, timeout, follow, count=1):
        """Up to count records; none when the wait is over."""
        handle = self._open_handle()
        if self.keep and timeout is None:
            timeout = 0
        end = None if timeout is None or follow else time.monotonic() + timeout
        # No writer wakes a reader that keeps records.  And a wait of the library goes on, past its
        # limit and past Ctrl-C, while wake-ups come, also those for a reader of another file that
        # had this one's port before.
        pause = _SHORTEST_PAUSE
        while True:
            looked = self._known == 0
            if looked:
                found = self._look()
                if self._known == 0:
                    left = pause if end is None else end - time.monotonic()
                    if not left > 0 or (end is None and not follow and found.writers == 0):
                        return []
                    time.sleep(min(left, pause))
                    pause = min(2 * pause, _PAUSE)
                    continue
            if count == 1:
                records = self._read_once(handle, flags)
            else:
                records = self._read_some(handle, flags, count)
            if not records and self.keep:
                self._look()
                looked = True
            # Of a reader alone, 0 bytes of a record that is there are a record of no data, as
            # other programs may write it.
            if not records and count == 1 and looked and self._known > 0 and self.exclusive:
                records = [b""]
            if not records:
                self._known = 0  # nothing came, or another reader was faster, or a repair
                continue
            if not flags & _READ_KEEP:
                self._known = max(self._known - len(records), 0)
            self._kept += len(records) if self.keep else 0
            return records

    def _read_once(self, handle, flags):
        got = _lib.tmf_freadx(handle, self._buffer, _LONGEST, flags, _ROUND)
        if got < 0:
            raise _handle_error(got, handle, self.path)
        return [ctypes.string_at(self._buffer, got)] if got > 0 else []

    def _read_some(self, handle, flags, count):
        count = min(count, _MOST)
        if len(self._buffer) < _ROOM:
            self._buffer = ctypes.create_string_buffer(_ROOM)
        items = (_Item * count)()
        flags |= _READ_LIMIT | _READ_SIGNAL
        got = _lib.tmf_fread_many(handle, items, count, self._buffer, _ROOM, flags)
        if got in (Code.ETIMEOUT, Code.ESIGNAL):
            return []
        if got < 0:
            raise _handle_error(got, handle, self.path)
        records = []
        at = ctypes.addressof(self._buffer)  # they lie there one behind the other
        for item in items[:got]:
            records.append(ctypes.string_at(at, item.length))
            at += item.length
        return records


def check(path):
    """Compares a file's records with the numbers at its beginning, without being one of its users.
    Not of a file that this process has open.  The Check."""
    result = _CheckResult()
    name = _name(path)
    with _opening:
        code = _lib.tmf_check(name, ctypes.byref(result))
        if code != 0:
            raise _handle_error(code, None, os.fspath(path))
    return Check(
        damage=tuple(text for bit, text in _FOUND if result.found & bit),
        other_order=bool(result.other_order),
        **{
            name: getattr(result, name)
            for name in Check._fields
            if name not in ("damage", "other_order")
        }
    )
