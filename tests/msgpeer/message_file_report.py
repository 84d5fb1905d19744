"""What is in a message file: a listing of every field with its offset, and a
check that counters, bit maps, slots and offsets agree with the records that
stand in the data area.  Both look at the file under the common lock and change
nothing.
"""

import os
import struct
from collections import namedtuple

import message_file_codes as codes
from message_file_area import MessageFileError, lock_wait, unlock
from message_file_layout import (
    BYTES,
    COMMON_SIZE,
    DATA_START,
    END_MARKER,
    FLAG_READER_EXCLUSIVE,
    FLAG_WRITER_EXCLUSIVE,
    INTEGERS,
    NEW_VALUES,
    READER_MAP,
    WAIT_LIST,
    WRITER_MAP,
    CommonArea,
    byte_order_of,
)

Record = namedtuple("Record", "offset length user data trailer")


def snapshot(path):
    fd = os.open(path, os.O_RDWR)
    try:
        r = lock_wait(fd, 0, COMMON_SIZE)
        if r != 0:
            raise MessageFileError(r)
        parts = []
        while part := os.read(fd, 1 << 20):
            parts.append(part)
        unlock(fd, 0, COMMON_SIZE)
        return b"".join(parts)
    finally:
        os.close(fd)


def area_of(raw):
    order = byte_order_of(raw) if len(raw) >= COMMON_SIZE else None
    if order is None or raw[4:8] != NEW_VALUES["magic"]:
        raise MessageFileError(codes.ENOTMSG)
    return CommonArea(order, raw[:COMMON_SIZE])


def framed_record(raw, offset):
    """The record at offset, None when there is no whole one."""
    if offset < 0 or offset + 7 > len(raw):
        return None
    length, user = struct.unpack_from(">HH", raw, offset)
    end = offset + length
    if length < 7 or length > 32767 or end > len(raw):
        return None
    trailer = struct.unpack_from(">H", raw, end - 2)[0]
    return Record(offset, length, user, raw[offset + 4 : end - 2], trailer)


def records_between(raw, start, end):
    records = []
    while start < end:
        record = framed_record(raw, start)
        if record is None:
            break
        records.append(record)
        start += record.length
    return records


def bits(area, map_offset, count):
    return [bit for bit in range(count) if area.get_bit(map_offset, bit)]


def pids(area, raw, is_reader, count):
    slots = {}
    for slot in range(count):
        offset = area.slot_offset(slot, is_reader)
        slots[slot] = struct.unpack_from(area.order + "i", raw, offset)[0]
    return slots


def printable(data):
    return "".join(chr(c) if 32 <= c < 127 else "." for c in data)


def data_lines(offset, data):
    for at in range(0, len(data), 16):
        row = data[at : at + 16]
        yield f"{offset + at:8}  {row.hex(' '):<47}  {printable(row)}"


def described(area, name, value):
    """The value of a byte field as people read it."""
    if name in ("magic", "file_stamp"):
        return f'"{printable(value)}"'
    if name == "signal_addr":
        return ".".join(str(byte) for byte in value)
    if name == "signal_ports":
        return " ".join(str(area.stored_port(slot)) for slot in range(16))
    if name in ("wait_list", "reader_map", "writer_map"):
        at = {"wait_list": WAIT_LIST, "reader_map": READER_MAP, "writer_map": WRITER_MAP}[name]
        taken = bits(area, at, 8 * len(value))
        return "bits " + " ".join(str(bit) for bit in taken) if taken else "no bits"
    return value.hex(" ")


def dump(path, most_data):
    """Lines of the listing; most_data bytes of each record are shown."""
    raw = snapshot(path)
    area = area_of(raw)
    yield f"{path}: {len(raw)} bytes, {'little' if area.order == '<' else 'big'}-endian"
    yield "  offset  field             bytes"
    fields = [(at, name, struct.calcsize(code)) for at, name, code, _ in INTEGERS] + BYTES
    for at, name, length in sorted(fields):
        value = area[name]
        shown = raw[at : at + length].hex(" ") if length <= 8 else ""
        meaning = described(area, name, value) if isinstance(value, bytes) else str(value)
        yield f"{at:8}  {name:<16}  {shown:<23}  {meaning}"

    for kind, is_reader in (("reader", True), ("writer", False)):
        for slot, pid in pids(area, raw, is_reader, area[f"max_{kind}s"]).items():
            if pid != 0:
                at = area.slot_offset(slot, is_reader)
                shown = raw[at : at + 4].hex(" ")
                yield f"{at:8}  {f'{kind} slot {slot}':<16}  {shown:<23}  pid {pid}"

    end = area["read_offset"]
    for record in records_between(raw, end, area["write_offset"]):
        yield f"{record.offset:8}  record of {record.length} bytes by user {record.user}"
        yield from data_lines(record.offset + 4, record.data[:most_data])
        if len(record.data) > most_data:
            yield f"{'':8}  ... {len(record.data) - most_data} more"
        end = record.offset + record.length
        yield f"{end - 2:8}  {raw[end - 2:end].hex(' '):<47}  length again"
    marker = raw[end : end + 2]
    if marker:
        yield f"{end:8}  {marker.hex(' '):<47}  behind the last record"


def check_fixed(area, raw):
    sizes = ("common_size", "lock_area_size", "data_start", "lock_area_offset", "max_readers",
             "max_writers", "format_version", "writer_slot_size", "reader_slot_size")
    for name in sizes:
        if area[name] != NEW_VALUES[name]:
            yield f"{name} is {area[name]}, not {NEW_VALUES[name]}"
    if any(c not in b"0123456789abcdef" for c in area["file_stamp"]):
        yield "file_stamp is not eight lower-case hexadecimal digits"
    if area["flags"] & ~7:
        yield f"flags has unknown bits: {area['flags']:#x}"
    if len(raw) < DATA_START:
        yield f"the file has {len(raw)} bytes, less than {DATA_START}"


def check_users(area, raw):
    kinds = (
        ("reader", True, READER_MAP, FLAG_READER_EXCLUSIVE),
        ("writer", False, WRITER_MAP, FLAG_WRITER_EXCLUSIVE),
    )
    for kind, is_reader, at, flag in kinds:
        count = area[f"num_{kind}s"]
        taken = bits(area, at, area[f"max_{kind}s"])
        if count != len(taken):
            yield f"num_{kind}s is {count}, {kind}_map has {len(taken)} bits"
        if area["flags"] & flag and count != 1:
            yield f"a {kind} has the file exclusively, and num_{kind}s is {count}"
        for slot, pid in pids(area, raw, is_reader, area[f"max_{kind}s"]).items():
            if (pid != 0) != (slot in taken):
                state = "taken" if slot in taken else "free"
                yield f"{kind} slot {slot} is {state} and holds pid {pid}"
    # wait_list may name free slots: a reader that gave up waiting leaves its
    # bit behind, which costs each writer a datagram and nothing else.


def check_records(area, raw):
    start, end, count = area["read_offset"], area["write_offset"], area["record_count"]
    if not area["data_start"] <= start <= end:
        yield f"read_offset {start}, write_offset {end}: not one behind the other"
        return
    if end > area["data_start"] and end > len(raw):
        yield f"write_offset is {end}, the file has {len(raw)} bytes"
        return
    if end > area["data_start"] and area["high_water"] < end:
        yield f"high_water is {area['high_water']}, less than write_offset {end}"
    if count == 0 and end != area["data_start"]:
        yield f"no records, and write_offset is {end}, not {area['data_start']}"
    records = records_between(raw, start, end)
    for record in records:
        if record.trailer != record.length:
            yield f"record at {record.offset}: length {record.length}, trailer {record.trailer}"
        if not 17 <= record.user <= 1024:
            yield f"record at {record.offset}: no writer has number {record.user}"
    reached = records[-1].offset + records[-1].length if records else start
    if reached < end:
        yield f"no whole record at {reached}, write_offset is {end}"
    if reached > end:
        yield f"record at {records[-1].offset} ends at {reached}, write_offset is {end}"
    if count != len(records):
        yield f"record_count is {count}, the data area has {len(records)} records"
    marker = raw[end : end + 2]
    if records and marker != END_MARKER[: len(marker)]:
        yield f"no end marker at {end}"


def check(path):
    """A line for each disagreement."""
    raw = snapshot(path)
    area = area_of(raw)
    lines = list(check_fixed(area, raw))
    if not lines:  # a wrong size or count makes the rest meaningless
        lines += check_users(area, raw)
        lines += check_records(area, raw)
    return lines
