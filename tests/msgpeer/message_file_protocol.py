"""A plain second implementation of message files, to test the first against.

Every operation is done one step after the other, with a lock, a seek, a read
or a write for each, and without a thought for speed.  Functions return 0 or a
negative code; the class MessageFile at the end raises it as MessageFileError.
"""

import os
import struct
import sys
import time

import message_file_codes as codes
from message_file_area import (
    MODE_ALL_USERS,
    MODE_COPY,
    Handle,
    MessageFileError,
    clear_user_id,
    ensure_common,
    get_common,
    get_user_id,
    lock_user,
    read,
    release_common,
    seek,
    unlock,
    unlock_user,
    update_users,
    write,
)
from message_file_layout import COMMON_SIZE, framed
from message_file_wait import (
    READ_LIMIT,
    READ_SIGNAL,
    READ_WAIT,
    fread_wait,
    need_to_wait,
    net_close,
    signal_readers,
)

HOST_ORDER = "<" if sys.byteorder == "little" else ">"

READ_KEEP = 1


# Opening and closing


def open_descriptor(path, mode):
    if mode & MODE_COPY and mode & 3 != 3:
        raise MessageFileError(codes.ECOPYMODE)
    flags = os.O_RDWR | os.O_CREAT
    try:
        if not mode & MODE_ALL_USERS:
            return os.open(path, flags, 0o600)
        mask = os.umask(0)
        try:
            return os.open(path, flags, 0o666)
        finally:
            os.umask(mask)
    except OSError as error:
        raise MessageFileError(codes.EOPEN, error.strerror) from None


def first_user_setup(common):
    common["file_stamp"] = b"%08x" % int(time.time())
    common.set_dirty(True)


def init_tmf_file(path, mode, order):
    h = Handle(open_descriptor(path, mode), mode, order)
    r = ensure_common(h)
    if r == 0:
        r = update_users(h)
    if r == 0:
        if h.common["num_readers"] + h.common["num_writers"] == 0:
            first_user_setup(h.common)
        return h
    if h.common_locked:
        unlock(h.fd, 0, COMMON_SIZE)
    os.close(h.fd)
    raise MessageFileError(r)


def fopen(path, mode, order):
    if not path:
        raise MessageFileError(codes.ENONAME)
    h = init_tmf_file(path, mode, order)
    h.user_id = get_user_id(h.common, h.kind, mode)
    r = h.user_id if h.user_id < 0 else lock_user(h)
    if h.is_reader and h.user_id >= 0:
        h.signal_port = h.common.signal_port(h.user_id)
    released = release_common(h)
    if r == 0:
        r = released
    if r != 0:
        close_file(h)
        raise MessageFileError(r)
    return h


def close_file(h):
    clear_user_id(h.common, h.kind, h.user_id)
    unlock_user(h)
    r = release_common(h)
    os.close(h.fd)
    return r


def fclose(h):
    r = get_common(h)
    if r != 0:
        net_close(h)
        os.close(h.fd)
        return r
    if not h.is_reader:
        signal_readers(h, b"C")
    net_close(h)
    return close_file(h)


# Records


def fwrite(h, data):
    if h.is_reader:
        return codes.EREAD_ACCESS
    if len(data) < 1 or len(data) > h.max_record_len:
        return codes.ERECORD_SIZE
    r = get_common(h)
    if r == 0:
        r = write_record(h, data)
    if r == 0:
        r = signal_readers(h, b"W")
    released = release_common(h)
    return r if r != 0 else released


def write_record(h, data):
    user = h.user_id + 1
    if not h.is_reader:
        user += h.common["max_readers"]
    length = h.record_overhead + len(data)
    at = seek(h.fd, h.common["write_offset"])
    if at != h.common["write_offset"]:
        return codes.ESEEK_DATA if at < 0 else codes.ESEEK_DATA_EOF
    written = write(h.fd, framed(user, data))
    if written < length:
        return codes.EWRITE_DATA if written < 0 else codes.EWRITE_DATA_EOF
    h.common["record_count"] += 1
    h.common["write_offset"] += length
    h.last_record_end = h.common["write_offset"]
    h.common["high_water"] = max(h.common["high_water"], h.common["write_offset"])
    h.common.set_dirty(True)
    return 0


def fread_record(h, length, flags, timeout):
    """Code and data; no data and code 0 when there is no record."""
    if not h.is_reader:
        return codes.EWRITE_ACCESS, None
    if length < 0:
        return codes.EBUFFER_SIZE, None
    r = get_common(h)
    data = None
    if h.copy_mode:
        got, data = read_record_copy(h, length)
        r = got if got < 0 else r
    else:
        if h.records_read == 0:
            flags |= READ_WAIT
        if h.common["record_count"] == 0 and need_to_wait(h.common, flags):
            r = fread_wait(h, flags, timeout)
        if r == 0:
            r, data = read_record(h, length, flags)
    released = release_common(h)
    r = r if r != 0 else released
    return r, data if r == 0 else None


def read_frame(h, offset, length):
    """Code, length of the whole record, and its data as far as asked for."""
    at = seek(h.fd, offset)
    if at != offset:
        return codes.ESEEK_DATA if at < 0 else codes.ESEEK_DATA_EOF, 0, None
    raw = read(h.fd, length + 6)
    if raw is None:
        return codes.EREAD_DATA, 0, None
    if len(raw) < 6:
        return codes.EREAD_DATA_EOF, 0, None
    total = struct.unpack_from(">H", raw)[0]
    return 0, total, raw[4 : 4 + max(0, min(total - 6, length))]


def read_record(h, length, flags):
    if h.common["record_count"] == 0:
        return 0, None
    r, total, data = read_frame(h, h.common["read_offset"], length)
    if r != 0:
        return r, None
    h.records_read += 1
    h.last_record_end = h.common["read_offset"]
    if not flags & READ_KEEP:
        r = delete_record(h, total)
    return r, data


def delete_record(h, total):
    r = 0
    h.common["read_offset"] += total
    h.common["record_count"] -= 1
    if h.common["record_count"] == 0:
        r = reset(h)
    h.common.set_dirty(True)
    return r


def reset(h):
    h.common["read_offset"] = h.common["write_offset"] = h.common["data_start"]
    if h.common["high_water"] > 65536:
        try:
            os.ftruncate(h.fd, 65536)
        except OSError:
            return codes.ETRUNCATE
        h.common["high_water"] = h.common["write_offset"]
    return 0


def read_record_copy(h, length):
    if h.copy_count >= h.common["record_count"]:
        return 0, None
    r, total, data = read_frame(h, h.copy_offset, length)
    if r != 0:
        return r, None
    h.records_read += 1
    h.copy_count += 1
    h.copy_offset += total
    return 0, data


class MessageFile:
    """An open message file; failures raise MessageFileError with the code."""

    def __init__(self, path, mode=0, order=HOST_ORDER):
        self.handle = fopen(path, mode, order)

    def _raise(self, code):
        if code != 0:
            raise MessageFileError(code, self.handle.net_error_text)

    def write(self, data):
        self._raise(fwrite(self.handle, data))

    def read(self, length=32761, flags=0):
        """The data of a record, or None when there is none."""
        r, data = fread_record(self.handle, length, flags, 4)
        self._raise(r)
        return data

    def readx(self, length=32761, flags=0, timeout=4):
        """As read, with a limit; None also when it ends or a signal comes."""
        flags |= READ_LIMIT | READ_SIGNAL
        r, data = fread_record(self.handle, length, flags, timeout)
        if r in (codes.ETIMEOUT, codes.ESIGNAL):
            return None
        self._raise(r)
        return data

    def getinfo(self):
        """Records, readers, writers, descriptor, offset behind the last record."""
        h = self.handle
        r = get_common(h)
        if r == 0:
            r = update_users(h)
        info = (
            h.common["record_count"],
            h.common["num_readers"],
            h.common["num_writers"],
            h.fd,
            h.common["write_offset"],
        )
        released = release_common(h)
        self._raise(r if r != 0 else released)
        return info

    def last_record_end(self):
        return self.handle.last_record_end

    def close(self):
        self._raise(fclose(self.handle))
