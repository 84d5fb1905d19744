"""The parts of a message file that all its users share: locks, the common area
under its lock, slots of users, and the removal of users that died.  Functions
return 0 or a negative code; the lock functions 1 for a lock of another process.
"""

import errno
import os
import struct
from collections import namedtuple

import message_file_codes as codes
from message_file_layout import (
    COMMON_SIZE,
    FLAG_READER_EXCLUSIVE,
    FLAG_WRITER_EXCLUSIVE,
    FORMAT_VERSION,
    MAGIC,
    MARK,
    READER_MAP,
    WRITER_MAP,
    CommonArea,
)

MODE_READ = 1
MODE_EXCLUSIVE = 2
MODE_COPY = 4
MODE_ALL_USERS = 8

# What differs between readers and writers: fields, and codes of failures.
Kind = namedtuple(
    "Kind",
    "count map slots slot_size last flag full held present seek read read_eof write write_eof",
)
READER = Kind(
    "num_readers", READER_MAP, "max_readers", "reader_slot_size", 15, FLAG_READER_EXCLUSIVE,
    codes.EMAXREADERS, codes.EREADER_EXCLUSIVE, codes.EREADER_PRESENT, codes.ESEEK_READER,
    codes.EREAD_READER, codes.EREAD_READER_EOF, codes.EWRITE_READER, codes.EWRITE_READER_EOF,
)
WRITER = Kind(
    "num_writers", WRITER_MAP, "max_writers", "writer_slot_size", 1007, FLAG_WRITER_EXCLUSIVE,
    codes.EMAXWRITERS, codes.EWRITER_EXCLUSIVE, codes.EWRITER_PRESENT, codes.ESEEK_WRITER,
    codes.EREAD_WRITER, codes.EREAD_WRITER_EOF, codes.EWRITE_WRITER, codes.EWRITE_WRITER_EOF,
)


class MessageFileError(Exception):
    def __init__(self, code, detail=""):
        super().__init__(f"{code} {detail}".rstrip())
        self.code = code


def seek(fd, offset):
    try:
        return os.lseek(fd, offset, os.SEEK_SET)
    except OSError:
        return -1


def read(fd, length):
    try:
        return os.read(fd, length)
    except OSError:
        return None


def write(fd, data):
    try:
        return os.write(fd, data)
    except OSError:
        return -1


# Locks


def lock(fd, offset, length, command, failure):
    if seek(fd, offset) != offset:
        return codes.EHANDLE
    try:
        os.lockf(fd, command, length)
    except OSError as error:
        if error.errno in (errno.EACCES, errno.EAGAIN):
            return 1
        return failure
    return 0


def lock_wait(fd, offset, length):
    return lock(fd, offset, length, os.F_LOCK, codes.ELOCK_WAIT)


def lock_nowait(fd, offset, length):
    return lock(fd, offset, length, os.F_TLOCK, codes.ELOCK_NOWAIT)


def lock_test(fd, offset, length):
    return lock(fd, offset, length, os.F_TEST, codes.ELOCK_TEST)


def unlock(fd, offset, length):
    return lock(fd, offset, length, os.F_ULOCK, codes.EUNLOCK)


class Handle:
    def __init__(self, fd, mode, order):
        self.fd = fd
        self.is_reader = mode & MODE_READ != 0
        self.copy_mode = mode & MODE_COPY != 0
        self.kind = READER if self.is_reader else WRITER
        self.common_locked = False
        self.slot_locked = False
        self.slot_offset = 0
        self.common = CommonArea(order)
        self.user_id = -1
        self.signal_port = 0
        self.record_overhead = 0
        self.max_record_len = 0
        self.records_read = 0
        self.copy_offset = 0
        self.copy_count = 0
        self.last_record_end = 0
        self.send_port = None
        self.send_socket = None
        self.receive_port = None
        self.receive_socket = None
        self.net_error_text = ""


# The common area


def read_first_common(h):
    raw = read(h.fd, COMMON_SIZE)
    if raw is None:
        return codes.EINIT_READ
    if len(raw) == 0:
        h.common.set_new()
        at = seek(h.fd, 0)
        if at != 0:
            return codes.ESEEK_COMMON if at < 0 else codes.ESEEK_COMMON_EOF
        written = write(h.fd, h.common.raw)
        if written < COMMON_SIZE:
            return codes.EINIT_WRITE if written < 0 else codes.EINIT_WRITE_EOF
        at = seek(h.fd, h.common["lock_area_offset"])
        if at != h.common["lock_area_offset"]:
            return codes.ESEEK_LOCKS if at < 0 else codes.ESEEK_LOCKS_EOF
        written = write(h.fd, bytes(h.common["lock_area_size"]))
        if written < COMMON_SIZE:
            return codes.EWRITE_LOCKS if written < 0 else codes.EWRITE_LOCKS_EOF
    else:
        h.common.raw[: len(raw)] = raw

    if h.common["magic"] != MAGIC:
        return codes.ENOTMSG
    if h.common["byte_order_mark"] == MARK:
        if h.common["format_version"] != FORMAT_VERSION:
            return codes.EFORMAT
    elif h.common["byte_order_mark"] == 0xFFFE:
        h.common.reverse_byte_order()
    else:
        return codes.EINCOMPATIBLE
    h.record_overhead = 3 * h.common["format_version"]
    h.max_record_len = 32767 - h.record_overhead
    h.copy_offset = h.common["read_offset"]
    return 0


def ensure_common(h):
    r = lock_wait(h.fd, 0, COMMON_SIZE)
    if r != 0:
        return r
    h.common_locked = True
    r = read_first_common(h)
    if r != 0:
        unlock(h.fd, 0, COMMON_SIZE)
        h.common_locked = False
    return r


def get_common(h):
    r = lock_wait(h.fd, 0, COMMON_SIZE)
    if r != 0:
        return r
    h.common_locked = True
    at = seek(h.fd, 0)
    if at != 0:
        r = codes.ESEEK_COMMON if at < 0 else codes.ESEEK_COMMON_EOF
    raw = read(h.fd, COMMON_SIZE)
    if raw is None:
        r = codes.EREAD_COMMON
    elif len(raw) < COMMON_SIZE:
        r = codes.EREAD_COMMON_EOF
    else:
        h.common.raw[:] = raw
        h.common.set_dirty(False)
    if r != 0:
        unlock(h.fd, 0, COMMON_SIZE)
        h.common_locked = False
    return r


def write_common(h):
    at = seek(h.fd, 0)
    if at != 0:
        return codes.ESEEK_COMMON if at < 0 else codes.ESEEK_COMMON_EOF
    written = write(h.fd, h.common.raw)
    if written < COMMON_SIZE:
        return codes.EWRITE_COMMON if written < 0 else codes.EWRITE_COMMON_EOF
    h.common.set_dirty(False)
    return 0


def release_common(h):
    dirty = h.common["flags"] & 1 != 0
    if not h.common_locked:
        return codes.EINTERNAL if dirty else 0
    r = write_common(h) if dirty else 0
    unlocked = unlock(h.fd, 0, COMMON_SIZE)
    h.common_locked = False
    return r if r != 0 else unlocked


# Users and their slots


def get_user_id(common, kind, mode):
    if common[kind.count] > kind.last:
        return kind.full
    if common["flags"] & kind.flag:
        return kind.held
    if mode & MODE_EXCLUSIVE:
        if common[kind.count] != 0:
            return kind.present
        common["flags"] |= kind.flag
    for slot in range(common[kind.slots]):
        if not common.get_bit(kind.map, slot):
            common.set_bit(kind.map, slot)
            common[kind.count] += 1
            common.set_dirty(True)
            return slot
    return codes.EINTERNAL


def clear_user_id(common, kind, slot):
    if slot < 0 or not common.get_bit(kind.map, slot):
        return codes.EINTERNAL
    common.clear_bit(kind.map, slot)
    common[kind.count] -= 1
    if common[kind.count] == 0:
        common["flags"] &= ~kind.flag
    common.set_dirty(True)
    return 0


def write_slot(h, kind, offset, pid):
    if seek(h.fd, offset) != offset:
        return kind.seek
    written = write(h.fd, struct.pack(h.common.order + "i", pid))
    if written < h.common[kind.slot_size]:
        return kind.write if written < 0 else kind.write_eof
    return 0


def read_slot(h, kind, offset):
    if seek(h.fd, offset) != offset:
        return kind.seek
    raw = read(h.fd, h.common[kind.slot_size])
    if raw is None:
        return kind.read
    return 0 if len(raw) == h.common[kind.slot_size] else kind.read_eof


def lock_user(h):
    if h.slot_locked:
        return 0
    h.slot_offset = h.common.slot_offset(h.user_id, h.is_reader)
    r = lock_nowait(h.fd, h.slot_offset, h.common[h.kind.slot_size])
    h.slot_locked = True
    if r == 0:
        r = write_slot(h, h.kind, h.slot_offset, os.getpid())
    return r


def unlock_user(h):
    if not h.slot_locked:
        return 0
    r = write_slot(h, h.kind, h.slot_offset, 0)
    unlocked = unlock(h.fd, h.slot_offset, h.common[h.kind.slot_size])
    h.slot_locked = False
    return unlocked if unlocked != 0 else r


def check_user(h, kind, slot):
    """Frees a slot that nobody holds any more."""
    offset = h.common.slot_offset(slot, kind is READER)
    r = lock_test(h.fd, offset, h.common[kind.slot_size])
    if r != 0:
        return 0 if r == 1 else r
    if read_slot(h, kind, offset) == 0:
        write_slot(h, kind, offset, 0)
    r = clear_user_id(h.common, kind, slot)
    if kind is READER:
        h.common.remove_waitlist(slot)
    return r


def update_info(h, kind):
    for slot in range(h.common[kind.slots]):
        own = kind is h.kind and slot == h.user_id
        if h.common.get_bit(kind.map, slot) and not own:
            r = check_user(h, kind, slot)
            if r != 0:
                return r
    if kind is READER and h.common["num_readers"] == 0:
        h.common["flags"] &= ~FLAG_READER_EXCLUSIVE
    return 0


def update_users(h):
    r = update_info(h, READER)
    return r if r != 0 else update_info(h, WRITER)
