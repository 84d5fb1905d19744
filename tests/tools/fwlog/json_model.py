#!/usr/bin/env python3
"""A second reading of a forward log, as plain as can be, and of the lines of JSON made of it.

usage: json_model.py DIRECTORY LINES [source-names] [text] [after=G-S.T] [to=G-S.T] [dset=NAME]
  DIRECTORY     of the log
  LINES         what dump --json has printed with the options that follow
  after, to     positions of entries
  dset          the one dataset that was selected

Exit status 0 when each line says what the log says."""
import collections
import glob
import json
import os
import re
import struct
import sys
from decimal import Decimal

Layout = collections.namedtuple("Layout", "names items source order encoding")


class Reader:
    """Takes fields off the front of bytes."""

    def __init__(self, data):
        self.data = data
        self.at = 0

    def take(self, length):
        self.at += length
        return self.data[self.at - length : self.at]

    def number(self, form):
        return struct.unpack("<" + form, self.take(struct.calcsize(form)))[0]

    def text(self, length, end=1):
        return self.take(length + end)[: length]


def decimal_of(digits, negative, scale):
    """Digits and sign as a decimal with its places; None: these are more than the digits."""
    if scale < 0 or scale > len(digits):
        return None
    whole, places = digits[: len(digits) - scale], digits[len(digits) - scale :]
    text = str(int(whole or "0")) + ("." + places if scale > 0 else "")
    return "-" + text if negative else text


def text_of_bytes(data, encoding):
    try:
        return "text", data.decode(encoding)
    except UnicodeDecodeError:
        return "bytes", data.hex()


def whole_of(kind, data):
    """What a whole value is: as value_of, and ("plain number", text) that is never a string."""
    number = re.fullmatch(rb"-?(0|[1-9][0-9]*)(\.[0-9]+)?([eE][+-]?[0-9]+)?", data)
    if kind not in "XU" and number:
        return "plain number" if kind in "ER" else "number", data.decode()
    return text_of_bytes(data, "utf-8")


def value_of(kind, size, scale, layout, data):
    """What an element is: ("number", text), ("float", bits), ("text", str) or ("bytes", hex)."""
    order = layout.order
    nothing = ("bytes", data.hex())
    if kind in "IJK":
        if size not in (2, 4, 8):
            return nothing
        return "number", str(int.from_bytes(data, order, signed=kind != "K"))
    if kind in "ER":
        return ("float", data if order == "little" else data[::-1]) if size in (4, 8) else nothing
    if kind == "P":
        digits, sign = data.hex()[:-1], data.hex()[-1]
        if sign not in "cdf" or not digits.isdecimal():
            return nothing
        text = decimal_of(digits, sign == "d", scale)
    elif kind == "Z":
        digits = data.decode("latin-1")
        last = "{ABCDEFGHI}JKLMNOPQR0123456789".find(digits[-1])
        if last < 0 or not all(c in "0123456789" for c in digits[:-1]):
            return nothing
        text = decimal_of(digits[:-1] + str(last % 10), 10 <= last < 20, scale)
    elif kind in "XU":
        text = text_of_bytes(data, layout.encoding)
        return (text[0], text[1].rstrip(" ")) if text[0] == "text" else text
    else:
        return nothing
    return nothing if text is None else ("number", text)


class Number(str):
    """A number as it stands in a line."""


def same(expected, got, options):
    kind, value = expected
    if kind == "null":
        return got is None
    if kind == "true or false":
        return got is value
    if kind == "number":
        return got == value and isinstance(got, Number) != ("text" in options)
    if kind == "plain number":
        return got == value and isinstance(got, Number)
    if kind == "text":
        return got == value and not isinstance(got, Number)
    if kind == "bytes":
        return got == {"hex": value}
    number = struct.unpack("<f" if len(value) == 4 else "<d", value)[0]
    if number != number:
        return got == "NaN" and not isinstance(got, Number)
    if number in (float("inf"), float("-inf")):
        return got == ("Infinity" if number > 0 else "-Infinity") and not isinstance(got, Number)
    if not isinstance(got, Number):
        return False
    if len(value) == 8:  # not longer than with Python's digits, which are the fewest
        digits = len(Decimal(repr(number)).normalize().as_tuple().digits)
        return struct.pack("<d", float(got)) == value and len(got) <= len(f"{number:.{digits - 1}e}")
    return struct.pack("<f", float(got)) == value and len(got.lstrip("-")) <= len("1.23456789e-38")


def truth_of(expected):
    """What a boolean column's value is."""
    kind, value = expected
    if kind == "float":
        number = struct.unpack("<f" if len(value) == 4 else "<d", value)[0]
        return ("true or false", number == 1) if number in (0, 1) else expected
    if kind in ("number", "plain number") and Decimal(value) in (0, 1) and not value.startswith("-"):
        return "true or false", Decimal(value) == 1
    if kind == "text" and value in ("T", "t", "true", "F", "f", "false"):
        return "true or false", value[0] in "Tt"
    return expected


def null_map_of(layout):
    if layout.source is not None:
        index = layout.source["null_map"]
    else:
        index = next((i for i, item in enumerate(layout.items) if item[0] == "NULL-MAP"), -1)
    if index < 0:
        return -1
    _, kind, size, count, _ = layout.items[index]
    return index if kind == "X" and count == 1 and size == len(layout.items) - 1 else -1


def image_of(layout, data, wholes, options):
    """Names and values of an image, in order; wholes: those beside it, by item."""
    if data is None:
        return None
    null_map = null_map_of(layout)
    columns = {c["item"]: c for c in (layout.source or {"columns": []})["columns"]}
    pieces, at = [], 0
    for _, _, size, count, _ in layout.items:
        pieces.append(data[at : at + size * count])
        at += size * count
    assert at == len(data)
    flags = iter(pieces[null_map] if null_map >= 0 else b"." * len(layout.items))
    values = []
    for i, (name, kind, size, count, scale) in enumerate(layout.items):
        if i == null_map:
            continue
        column = columns.get(i) if "source-names" in options else None
        flag = chr(next(flags))
        if flag == "?" or (flag == "!" and i not in wholes):
            continue
        if flag == "N":
            elements = ("null", None)
        elif i in wholes:
            elements = whole_of(kind, wholes[i])
            if column and column["type"] in ("boolean", "boolean[]"):
                elements = truth_of(elements)
        else:
            elements = [
                value_of(kind, size, scale, layout, pieces[i][n * size : n * size + size])
                for n in range(count)
            ]
            if column and column["type"] in ("boolean", "boolean[]"):
                elements = [truth_of(e) for e in elements]
            if count == 1:
                elements = elements[0]
        values.append((column["name"] if column else name, elements))
    return values


def same_image(expected, got, options):
    if expected is None or got is None:
        return expected is None and got is None
    if [name for name, _ in expected] != [name for name, _ in got]:
        return False
    for (_, value), (_, other) in zip(expected, got):
        if isinstance(value, list):
            if not isinstance(other, list) or len(value) != len(other):
                return False
            if not all(same(v, o, options) for v, o in zip(value, other)):
                return False
        elif not same(value, other, options):
            return False
    return True


def latin(data):
    return data.decode("latin-1")


def take_layout(r, order, encoding):
    database, dataset, _, count = r.number("B"), r.number("B"), r.number("H"), r.number("I")
    names = latin(r.text(database)), latin(r.text(dataset))
    items = []
    for _ in range(count):
        name = latin(r.text(r.number("B"), 0))
        kind, size, elements, aux = (r.number("i") for _ in range(4))
        items.append((name, chr(kind), size, elements, aux))
    return Layout(names, items, None, order, encoding)


def take_source(r):
    database, dataset, _, count, null_map = (r.number(f) for f in "BBHII")
    names = latin(r.text(database)), latin(r.text(dataset))

    def short():
        return r.text(r.number("H")).decode("utf-8")

    source = {"schema": short(), "table": short(), "null_map": null_map - 1, "columns": []}
    for _ in range(count):
        item, key = r.number("I") - 1, r.number("I")
        name = short()
        source["columns"].append({"item": item, "key": key, "name": name, "type": short()})
    return names, source


def take_session(r):
    bits, _, data = r.number("B"), r.take(3), r.number("I")
    entries = [latin(r.text(r.number("I"))) if bits >> i & 1 else None for i in range(5)]
    return entries[:4], [r.text(r.number("I")) for _ in range(data)]


def take_mark(r):
    kind, database, dataset, _ = (r.number("B") for _ in range(4))
    names = latin(r.text(database)), latin(r.text(dataset))
    schema, table, reason = (r.text(r.number("I")).decode("utf-8") for _ in range(3))
    return chr(kind), names, table_name(schema, table), reason


def take_value(r):
    item, image, more, _ = (r.number(f) for f in "IBBH")
    return (chr(image), item), more == 1, r.take(len(r.data) - r.at)


def table_name(schema, table):
    """As the configuration writes it; controls are not in these logs."""
    def part(name):
        return '"' + name.replace('"', '""') + '"' if not name or set(name) & set('." #=') else name

    return ".".join(part(name) for name in (schema, table) if name)


def take_change(r, kind):
    r.take(8)
    record, length, database, dataset, _ = (r.number(f) for f in "iiBBH")
    names = latin(r.text(database)), latin(r.text(dataset))
    before = r.take(length) if kind != 3 else None
    after = r.take(length) if kind != 5 else None
    return record, names, before, after


def entries_of(path):
    with open(path, "rb") as file:
        data = file.read()
    order = {"L": "little", "B": "big"}[chr(data[12])]
    encoding = {0: "latin-1", ord("U"): "utf-8"}[data[13]]
    at = 64
    while at < len(data):
        length, kind, _, tag = struct.unpack_from("<IHHi", data, at)
        yield tag, kind, Reader(data[at + 24 : at + length]), order, encoding
        at += length + -length % 8


def transactions(directory):
    """(list of changes, commit) of each; layouts are those at the change."""
    for path in sorted(glob.glob(os.path.join(directory, "fw????-????????.log"))):
        file = os.path.basename(path)
        number = int(file[2:6]), int(file[7:15])
        layouts, begun, changes, session = {}, {}, [], ([None] * 4, [])
        wholes = {}  # of the change to come: bytes by image and item
        for tag, kind, r, order, encoding in entries_of(path):
            position = number + (tag,)
            if kind == 1:
                layout = take_layout(r, order, encoding)
                layouts[layout.names] = layout
                begun[layout.names] = position
            elif kind == 7:
                names, source = take_source(r)
                layouts[names] = layouts[names]._replace(source=source)
            elif kind == 9:
                place, more, data = take_value(r)
                wholes[place] = wholes.get(place, b"") + data
            elif kind == 2:
                session = take_session(r)
            elif kind == 8:
                op, names, table, reason = take_mark(r)
                layout = layouts.get(names)
                changes.append(
                    {"op": op, "names": names, "position": position, "session": session[0],
                     "record": None, "table": table or (table_of(layout) if layout else ""),
                     "reason": reason, "layout": layout, "begun": begun.get(names)})
            elif kind == 6:
                time_us, xid, lsn = r.number("q"), r.number("Q"), r.number("Q")
                yield changes, {"position": position, "time": time_us, "xid": xid, "lsn": lsn}
                changes, session = [], ([None] * 4, [])
            else:
                record, names, before, after = take_change(r, kind)
                snapshot = bool(session[1]) and session[1][-1].startswith(b"snapshot=")
                op = {3: "r" if snapshot else "c", 4: "u", 5: "d"}[kind]
                changes.append(
                    {"op": op, "names": names, "position": position, "session": session[0],
                     "record": record, "table": table_of(layouts[names]), "before": before,
                     "after": after, "layout": layouts[names], "begun": begun[names],
                     "wholes": wholes})
                wholes = {}


def text_of(position):
    return "%d-%d.%d" % position


def table_of(layout):
    if layout.source is None:
        return ""
    return table_name(layout.source["schema"], layout.source["table"])


def schema_of(change, begun):
    layout = change["layout"]
    null_map = null_map_of(layout)
    columns = {c["item"]: c for c in (layout.source or {"columns": []})["columns"]}
    keyed = [c for c in (layout.source or {"columns": []})["columns"] if c["key"] > 0]
    if any(c["item"] < 0 for c in keyed):
        keyed = []
    key = [c["item"] for c in sorted(keyed, key=lambda c: c["key"])]
    items = []
    for i, (name, kind, size, count, scale) in enumerate(layout.items):
        if i != null_map:
            column = columns.get(i, {"name": "", "type": ""})
            items.append(
                {"name": name, "type": kind, "size": size, "count": count, "scale": scale,
                 "column": column["name"] or None, "source_type": column["type"] or None,
                 "key": key.index(i) + 1 if i in key else None, "nullable": null_map >= 0})
    return {"schema": {
        "database": layout.names[0], "dataset": layout.names[1], "table": table_of(layout) or None,
        "position": text_of(begun), "items": items,
        "key": [layout.items[i][0] for i in key],
        "null_map": layout.items[null_map][0] if null_map >= 0 else None}}


def pid_of(text):
    plain = text and text.isascii() and text.isdecimal() and len(text) <= 15
    return int(text) if plain and (text == "0" or text[0] != "0") else text


def line_of(change, commit, n, last):
    """All but the images."""
    lsn = commit["lsn"]
    program, user, login, pid = change["session"]
    line = {
        "op": change["op"],
        "source": {
            "database": change["names"][0] or None, "dataset": change["names"][1] or None,
            "table": change["table"] or None, "position": text_of(change["position"]),
            "record": change["record"], "xid": commit["xid"],
            "lsn": "%X/%X" % (lsn >> 32, lsn & 0xFFFFFFFF), "commit_us": commit["time"],
            "program": program, "user": user, "login": login, "pid": pid_of(pid)},
        "transaction": {"id": text_of(commit["position"]), "n": n, "last": last},
        "ts_ms": commit["time"] // 1000}
    if "reason" in change:
        member = {"t": "truncate", "g": "gap"}[change["op"]]
        line[member] = {"reason": change["reason"] or None}
    return line


def expected_lines(directory, options):
    """(line without images, before, after) of what is to be printed."""
    def position(name):
        text = options.get(name)
        return tuple(int(p) for p in text.replace("-", " ").replace(".", " ").split()) if text else None

    after, to, dset = position("after"), position("to"), options.get("dset")
    given = {}
    first = {}  # layout in a byte order: the entry that it was read from first
    for changes, commit in transactions(directory):
        wanted = [
            (n, c) for n, c in enumerate(changes, 1)
            if (after is None or c["position"] > after) and (to is None or c["position"] <= to)
            and (dset is None or c["names"][1] in ("", dset))]
        broken_off = to is not None and any(c["position"] > to for c in changes)
        for place, (n, change) in enumerate(wanted):
            layout, last = change["layout"], place + 1 == len(wanted) and not broken_off
            begun = first.setdefault(repr(layout), change["begun"])
            line = line_of(change, commit, n, last)
            if "reason" in change:
                yield line, None, None
                continue
            said = layout._replace(order="")
            if given.get(layout.names) != said:
                yield schema_of(change, begun), None, None
            given[layout.names] = said
            rows = [
                image_of(layout, change[name], {item: data for (image, item), data
                                                in change["wholes"].items() if image == name[0]},
                         options)
                for name in ("before", "after")]
            yield line, rows[0], rows[1]


def values_of(pairs):
    """An object that was read as pairs, which a member that is an object stays no longer."""
    def value(v):
        if isinstance(v, list) and v and isinstance(v[0], tuple):
            return dict(v)
        return [value(e) for e in v] if isinstance(v, list) else v

    return None if pairs is None else [(name, value(v)) for name, v in pairs]


def main():
    directory, lines = sys.argv[1:3]
    options = dict(word.partition("=")[::2] for word in sys.argv[3:])
    expected = expected_lines(directory, options)
    count = 0
    with open(lines, encoding="utf-8", newline="\n") as file:
        for line in file:
            count += 1
            model, before, after = next(expected, (None, None, None))
            rest = json.loads(line)
            pairs = dict(json.loads(line, parse_float=Number, parse_int=Number,
                                    object_pairs_hook=list))
            for name, image in (("before", before), ("after", after)):
                rest.pop(name, None)
                if not same_image(image, values_of(pairs.get(name)), options):
                    sys.exit(f"line {count}: {line}{name} is {image}")
            if rest != model or ("op" in rest) != ("before" in pairs and "after" in pairs):
                sys.exit(f"line {count}: {line}is {model}")
    if next(expected, None) is not None:
        sys.exit(f"{count} lines, and there should be more")
    print(f"{count} lines")


main()
