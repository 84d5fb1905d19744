#!/usr/bin/env python3
"""Plays what was captured of a database into empty tables and compares these with the database.

usage: any_database_compare.py LINES RECORDS CONTENTS [OLD=NEW]... [aside:TABLE]...

LINES     what "fwlog tail --json" gives: layouts, and all values whole
RECORDS   the records of a message file (-exthdr -yyyy -recnum), each behind its length (u32,
          little-endian); numbers of the images are little-endian, texts UTF-8.  A record whose
          number comes twice is one that was in hand at a kill
CONTENTS  of each table a line "@" with JSON (table, columns, types), then "=" and a row as COPY
          writes it
OLD=NEW   columns that were renamed, as schema.table.column
TABLE     tables that are set aside: of these the log has a gap mark, and nothing behind it;
          they are not compared

A value comes from the record where the record's null map says that it holds it, and must be the
one of the line then; else it comes from the line, and the record must be what the null map says.
Old values must be those of a row that is there.  A truncate empties its table.  Behind a gap
there are no changes of a table, unless a truncate begins it anew.  Prints how often each mark was
seen; exit status 1 when something differs."""
import collections
import json
import re
import struct
import sys

HEADER = 141
WRONG = []


class Number(str):
    """A number as it stands in a line."""


def wrong(text):
    if len(WRONG) < 20:
        WRONG.append(text[:1500])


def source_name(*parts):
    return ".".join(
        '"' + p.replace('"', '""') + '"' if p == "" or re.search(r'[."#=\s\x00-\x20\x7f]', p) else p for p in parts)


STAMP = re.compile(r"(\d{4,}-\d\d-\d\d \d\d:\d\d:\d\d|\d\d:\d\d:\d\d)(\.\d+)?(\+00)?( BC)?")


def plain(text):
    """A text as all three write it: without zeros behind a second's decimals and the name of
    the zone UTC."""
    stamp = STAMP.fullmatch(text)
    if stamp:
        zone = stamp[3] or "" if len(stamp[1]) == 8 else ""
        return stamp[1] + (stamp[2] or "").rstrip("0").rstrip(".") + zone + (stamp[4] or "")
    return text


def same_number(left, right):
    """Floating point in its shortest forms, which programs write differently."""
    try:
        return repr(float(left)) == repr(float(right))
    except ValueError:
        return False


def single(left, right):
    """Floating point of four bytes, with all digits or the fewest."""
    try:
        return same_number(left, right) or struct.pack("<f", float(left)) == struct.pack("<f", float(right))
    except (ValueError, OverflowError):
        return False


def same(left, right, kind):
    """Whether values are one: None, or texts.  kind is the column's type in the database."""
    if left is None or right is None:
        return left is right
    if kind == "real":
        return single(left, right)
    if kind == "double precision":
        return same_number(left, right)
    if kind == "boolean":
        return left.lower() == right.lower()
    if kind == "character":  # filled up, or not
        return left.rstrip(" ") == right.rstrip(" ")
    return plain(left) == plain(right)


# ---- lines and records

def packed(raw, scale):
    nibbles = raw.hex()
    digits, sign = nibbles[:-1], nibbles[-1]
    if not digits.isdigit() or sign not in "cdf":
        return None
    digits = digits.lstrip("0").rjust(scale + 1, "0")
    whole, part = (digits[:-scale], "." + digits[-scale:]) if scale else (digits, "")
    return ("-" if sign == "d" else "") + whole + part


def decode(item, raw):
    """The value of an item's bytes as text."""
    kind, size = item["type"], int(item["size"])
    if kind in "IJK":
        return str(int.from_bytes(raw, "little", signed=kind != "K"))
    if kind in "ER":
        value = struct.unpack("<f" if size == 4 else "<d", raw)[0]
        return repr(value)
    if kind == "P":
        return packed(raw, int(item["scale"]))
    return raw.decode("utf-8", "backslashreplace")


def is_blank(item, raw):
    kind = item["type"]
    return raw == b" " * len(raw) if kind == "X" else raw == bytes(len(raw)) or kind == "P" and packed(raw, 0) == "0"


def text_of(value):
    """A value of a line as text."""
    if isinstance(value, dict):
        raise ValueError(f"bytes in the place of text: {value}")
    return value


def check_item(where, item, flag, raw, image, marks):
    """The item's value, or nothing when it is not known."""
    name = item["name"]
    marks[flag] += 1
    if flag == "?":
        if name in image:
            wrong(f"{where}: {name} is not known, but the line has {image[name]!r}")
        if not is_blank(item, raw):
            wrong(f"{where}: {name} is not known, but the record has {raw!r}")
        return ()
    if name not in image:
        wrong(f"{where}: {name} is marked {flag}, but the line leaves it out")
        return ()
    value = text_of(image[name])
    if flag == "N":
        if value is not None or not is_blank(item, raw):
            wrong(f"{where}: {name} is null, but the line has {value!r}, the record {raw!r}")
        return (None,)
    if value is None:
        wrong(f"{where}: {name} is marked {flag}, but the line has null")
        return ()
    if flag == ".":
        held = decode(item, raw)
        if item["type"] in "ER":
            alike = (single if item["size"] == "4" else same_number)(held, value)
        else:
            alike = held is not None and held.rstrip(" ") == value
        if not alike:
            wrong(f"{where}: {name} is {held!r} in the record, {value!r} in the line")
    elif flag == "C":
        held, whole = decode(item, raw), value.encode("utf-8")
        fits = whole[:len(raw)].decode("utf-8", "ignore")  # the last whole character that fits
        if (len(whole) <= len(raw) and not value.endswith(" ")) or held.rstrip(" ") != fits.rstrip(" "):
            wrong(f"{where}: {name} is cut to {held!r}, from {value!r}")
    elif flag == "!":
        if not is_blank(item, raw):
            wrong(f"{where}: {name} is left out, but the record has {raw!r}")
    else:
        wrong(f"{where}: {name} has the mark {flag!r}")
    return (value,)


def row_of(where, layout, raw, image, marks):
    """The known values of an image by column."""
    row, at = {}, 0
    nulls = raw[len(raw) - len(layout["items"]):].decode("ascii")
    for item, flag in zip(layout["items"], nulls):
        size = int(item["size"]) * int(item["count"])
        known = check_item(where, item, flag, raw[at:at + size], image, marks)
        at += size
        if known and item["column"] is not None:
            row[item["column"]] = known[0]
    if at + len(nulls) != len(raw):
        wrong(f"{where}: an image of {len(raw)} bytes instead of {at + len(nulls)}")
    return row


def records_of(path):
    with open(path, "rb") as file:
        data = file.read()
    at, number = 0, None
    while at < len(data):
        size, = struct.unpack_from("<I", data, at)
        record = data[at + 4:at + 4 + size]
        at += 4 + size
        if record[126:HEADER] != number:
            number = record[126:HEADER]
            yield record


def changes_of(lines_path, records_path, marks):
    """Operation, place, table, types, old row and new row of each change, of a mark without the
    last three."""
    records, layouts, last = records_of(records_path), {}, True
    with open(lines_path, encoding="utf-8", newline="\n") as lines:
        for line in lines:
            change = json.loads(line, parse_float=Number, parse_int=Number)
            if "schema" in change:
                schema = change["schema"]
                layouts[schema["database"], schema["dataset"]] = schema
                continue
            source = change["source"]
            where = f"{source['position']} {source['table']}"
            last = change["transaction"]["last"]
            if change["op"] in "tg":
                yield change["op"], where, source["table"], None, None, None
                continue
            record = next(records, None)
            if record is None:
                wrong(f"{where}: no record was captured")
                return
            header, body = record[:HEADER].decode("latin-1"), record[HEADER:]
            told = (header[6:30].strip(), header[30:46].strip(), header[62:64], int(header[126:141]))
            line_says = (source["database"], source["dataset"], {"c": "IP", "r": "IP", "u": "IU", "d": "ID"}[change["op"]],
                         int(source["record"]))
            if told != line_says:
                wrong(f"{where}: the record is {told}, the line {line_says}")
                return
            layout = layouts[source["database"], source["dataset"]]
            images, size = [], len(body) // (2 if change["op"] == "u" else 1)
            for name, there in (("before", "ud"), ("after", "cru")):
                if change["op"] not in there:
                    images.append(None)
                    continue
                images.append(row_of(f"{where} {name}", layout, body[:size], change[name], marks))
                body = body[size:]
            types = {i["column"]: i["source_type"] for i in layout["items"]}
            yield change["op"], where, source["table"], types, images[0], images[1]
    if next(records, None) is not None:
        wrong("more records than lines")
    if not last:
        wrong("the last transaction is not whole")


# ---- tables

def find_row(rows, old, types):
    """Index of the row that an old row tells of, by the columns that both know."""
    for i in range(len(rows) - 1, -1, -1):
        row = rows[i]
        for column, value in old.items():
            if column in row and row[column] != value and not same(row[column], value, types.get(column)):
                break
        else:
            return i
    return None


class Played:
    """What a log gives: tables, and which of them lack changes (True: they have older rows)."""

    def __init__(self):
        self.tables = collections.defaultdict(list)
        self.gaps = {}
        self.count = collections.Counter()


def play_mark(played, op, table):
    played.count[op] += 1
    if op == "t":
        played.tables[table] = []
        played.gaps.pop(table, None)
        return
    for missed in [table] if table is not None else list(played.tables):
        played.gaps[missed] = played.gaps.get(missed, False) or bool(played.tables.get(missed))


def play(changes, renamed):
    played = Played()
    for op, where, table, types, old, new in changes:
        if op in "tg":
            play_mark(played, op, table)
            continue
        played.count["changes"] += 1
        if played.gaps.pop(table, False):
            wrong(f"{where}: a change behind a gap, of a table that has older rows")
        rows = played.tables[table]
        for row in rows if table in renamed and any(c in types for c in renamed[table].values()) else ():
            for before, after in renamed[table].items():
                if before in row:
                    row[after] = row.pop(before)
        kept = {}
        if old is not None:
            i = find_row(rows, old, types)
            if i is None:
                wrong(f"{where}: no row is {old}")
            else:
                kept = rows.pop(i)
        if new is not None:
            rows.append({**kept, **new})
    return played


ESCAPE = {"b": "\b", "f": "\f", "n": "\n", "r": "\r", "t": "\t", "v": "\v"}


def copied(field):
    if field == "\\N":
        return None
    return re.sub(r"\\(.)", lambda m: ESCAPE.get(m[1], m[1]), field)


def compare(played, aside, path):
    """Each row of the database must be one row of the table played, and none be left."""
    seen, left = set(), []
    for table in aside - set(played.gaps):
        wrong(f"{table} is set aside, but the log has no gap mark, or something behind it")
    with open(path, encoding="utf-8", newline="\n") as file:
        for line in file:
            line = line.rstrip("\n")
            if line.startswith("@"):
                if left:
                    wrong(f"{table}: {len(left)} rows too many, such as {left[0]}")
                head = json.loads(line[1:])
                table = source_name(*head["table"])
                columns, types = head["columns"] or [], dict(zip(head["columns"] or [], head["types"] or []))
                if table not in aside:
                    seen.add(table)
                    if table in played.gaps:
                        wrong(f"{table}: the log has a gap, behind which nothing begins anew")
                left = list(played.tables.get(table, [])) if table not in aside else []
                continue
            if table in aside:
                continue
            fields = line[1:].split("\t") if columns else []
            row = {c: copied(f) for c, f in zip(columns, fields)}
            for i, candidate in enumerate(left):
                if all(c in candidate and same(candidate[c], v, types[c]) for c, v in row.items()):
                    left.pop(i)
                    break
            else:
                wrong(f"{table}: nothing played is {row}, but for instance {left[:1]}")
    if left:
        wrong(f"{table}: {len(left)} rows too many, such as {left[0]}")
    return len(seen)


def main():
    renamed, aside = collections.defaultdict(dict), set()
    for pair in sys.argv[4:]:
        if pair.startswith("aside:"):
            aside.add(pair[6:])
            continue
        old, new = pair.split("=")
        table, column = old.rsplit(".", 1)
        renamed[table][column] = new.rsplit(".", 1)[1]
    marks = collections.Counter()
    played = play(changes_of(sys.argv[1], sys.argv[2], marks), renamed)
    compared = compare(played, aside, sys.argv[3])
    count = played.count
    print("\n".join(WRONG + [f"{compared} tables, {count['changes']} changes; values " +
                             ", ".join(f"{marks[flag]} {flag}" for flag in ".NCR?!") +
                             f"; {count['t']} truncates, {count['g']} gaps"]))
    sys.exit(1 if WRONG else 0)


main()
