"""The bytes of a message file: fields of the common area, lock slots and the
framing of records.  Nothing here opens or locks a file.
"""

import struct

COMMON_SIZE = 256
LOCK_AREA_SIZE = 4096
DATA_START = COMMON_SIZE + LOCK_AREA_SIZE
MARK = 0xFEFF
MAGIC = b"TM01"
FORMAT_VERSION = 2
MAX_READERS = 16
MAX_WRITERS = 1008
END_MARKER = b"\xff\xff"

# Offset, name and type (of the struct module) of the integers in host order,
# and whether an area of the other byte order has them reversed.
INTEGERS = [
    (0, "byte_order_mark", "H", True),
    (2, "reserved_0", "H", True),
    (8, "common_size", "i", True),
    (12, "lock_area_size", "i", True),
    (16, "record_count", "i", True),
    (20, "reserved_1", "I", False),
    (24, "reserved_2", "I", True),
    (28, "data_start", "i", True),
    (32, "reserved_3", "I", True),
    (36, "read_offset", "i", True),
    (40, "reserved_4", "I", True),
    (44, "write_offset", "i", True),
    (48, "reserved_5", "I", True),
    (52, "lock_area_offset", "i", True),
    (56, "reserved_6", "I", True),
    (60, "high_water", "i", True),
    (64, "max_readers", "h", True),
    (66, "max_writers", "h", True),
    (68, "num_readers", "h", True),
    (70, "num_writers", "h", True),
    (72, "flags", "H", True),
    (74, "format_version", "h", True),
    (76, "writer_slot_size", "h", True),
    (78, "reader_slot_size", "h", True),
]

# Offset, name and length of what is the same in both byte orders.
BYTES = [
    (4, "magic", 4),
    (80, "signal_addr", 4),
    (84, "file_stamp", 8),
    (92, "signal_ports", 32),
    (124, "wait_list", 2),
    (126, "reader_map", 2),
    (128, "writer_map", 126),
    (254, "reserved_7", 2),
]

NEW_VALUES = {
    "byte_order_mark": MARK,
    "common_size": COMMON_SIZE,
    "lock_area_size": LOCK_AREA_SIZE,
    "data_start": DATA_START,
    "read_offset": DATA_START,
    "write_offset": DATA_START,
    "lock_area_offset": COMMON_SIZE,
    "max_readers": MAX_READERS,
    "max_writers": MAX_WRITERS,
    "format_version": FORMAT_VERSION,
    "writer_slot_size": 4,
    "reader_slot_size": 4,
    "magic": MAGIC,
    "signal_addr": bytes([127, 0, 0, 1]),
}

FLAG_DIRTY = 1
FLAG_READER_EXCLUSIVE = 2
FLAG_WRITER_EXCLUSIVE = 4

WAIT_LIST = 124
READER_MAP = 126
WRITER_MAP = 128
SIGNAL_PORTS = 92


class CommonArea:
    """The 256 bytes as a host of the given byte order ("<" or ">") sees them."""

    _integers = {name: (at, code) for at, name, code, _ in INTEGERS}
    _bytes = {name: (at, length) for at, name, length in BYTES}

    def __init__(self, order, raw=bytes(COMMON_SIZE)):
        self.order = order
        self.raw = bytearray(raw)

    def __getitem__(self, name):
        if name in self._bytes:
            at, length = self._bytes[name]
            return bytes(self.raw[at : at + length])
        at, code = self._integers[name]
        return struct.unpack_from(self.order + code, self.raw, at)[0]

    def __setitem__(self, name, value):
        if name in self._bytes:
            at, length = self._bytes[name]
            assert len(value) == length
            self.raw[at : at + length] = value
        else:
            at, code = self._integers[name]
            struct.pack_into(self.order + code, self.raw, at, value)

    def set_new(self):
        self.raw = bytearray(COMMON_SIZE)
        for name, value in NEW_VALUES.items():
            self[name] = value

    def set_dirty(self, on):
        if on:
            self["flags"] |= FLAG_DIRTY
        else:
            self["flags"] &= ~FLAG_DIRTY

    def reverse_byte_order(self):
        for at, _, code, swapped in INTEGERS:
            if swapped:
                end = at + struct.calcsize(code)
                self.raw[at:end] = self.raw[at:end][::-1]
        self.set_dirty(True)

    def get_bit(self, map_offset, bit):
        return self.raw[map_offset + (bit >> 3)] >> (bit & 7) & 1

    def set_bit(self, map_offset, bit):
        self.raw[map_offset + (bit >> 3)] |= 1 << (bit & 7)

    def clear_bit(self, map_offset, bit):
        self.raw[map_offset + (bit >> 3)] &= ~(1 << (bit & 7)) & 0xFF

    def stored_port(self, slot):
        return struct.unpack_from(">H", self.raw, SIGNAL_PORTS + 2 * slot)[0]

    def signal_port(self, slot):
        port = self.stored_port(slot)
        return port if port != 0 else 0xD000 + slot

    def set_signal_port(self, slot, port):
        struct.pack_into(">H", self.raw, SIGNAL_PORTS + 2 * slot, port)

    def new_signal_port(self, port):
        return (port + self["max_readers"]) & 0x7FF | 0xD000

    def add_waitlist(self, slot, port):
        if not self.get_bit(WAIT_LIST, slot):
            self.set_bit(WAIT_LIST, slot)
        elif self.stored_port(slot) == port:
            return
        self.set_signal_port(slot, port)
        self.set_dirty(True)

    def remove_waitlist(self, slot):
        self.clear_bit(WAIT_LIST, slot)
        self.set_dirty(True)

    def slot_offset(self, slot, is_reader):
        place = slot if is_reader else self["max_readers"] + slot
        return self["lock_area_offset"] + place * self["reader_slot_size"]


def framed(user, data):
    """One record as it stands in the data area, and the end marker behind it."""
    length = len(data) + 6
    return (
        struct.pack(">HH", length, user) + data + struct.pack(">H", length) + END_MARKER
    )


def byte_order_of(raw):
    """The byte order in which an area was written, None when neither."""
    for order in "<>":
        if struct.unpack_from(order + "H", raw)[0] == MARK:
            return order
    return None
