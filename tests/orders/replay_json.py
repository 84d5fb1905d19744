#!/usr/bin/env python3
"""Plays changes in JSON, by the source's names, into empty tables and compares these with the
database's final contents.

usage: replay_json.py LINES FINAL_CSV

Each change must meet the row that it tells of, each transaction be whole.  Prints how many
transactions and changes there were; exit status 1 when something differs."""
import collections
import csv
import json
import struct
import sys
from decimal import Decimal


class Number(str):
    """A number as it stands in a line."""


def lines_of(path):
    with open(path, encoding="utf-8", newline="\n") as lines:
        for line in lines:
            yield json.loads(line, parse_float=Number, parse_int=Number)


def play(lines):
    """Tables by name: the rows by key, and the columns' types."""
    keys, types = {}, collections.defaultdict(dict)
    tables = collections.defaultdict(dict)
    transactions = changes = 0
    inside = None  # transaction, number of its change
    for line in lines:
        if "schema" in line:
            schema = line["schema"]
            columns = {item["name"]: item["column"] for item in schema["items"]}
            keys[schema["table"]] = [columns[item] for item in schema["key"]]
            types[schema["table"]] = {i["column"]: i["source_type"] for i in schema["items"]}
            continue
        table, transaction = line["source"]["table"], line["transaction"]
        expected = (transaction["id"], inside[1] + 1) if inside else (transaction["id"], 1)
        assert (transaction["id"], int(transaction["n"])) == expected, line
        assert inside is None or inside[0] == transaction["id"], line
        inside = None if transaction["last"] else expected
        transactions += transaction["last"]
        changes += 1
        rows, key = tables[table], keys[table]
        for image, op in (("before", "ud"), ("after", "cu")):
            assert (line[image] is not None) == (line["op"] in op), line
        if line["before"] is not None:
            assert rows.pop(tuple(line["before"][k] for k in key)) == line["before"], line
        if line["after"] is not None:
            assert rows.setdefault(tuple(line["after"][k] for k in key), line["after"]) is line["after"]
    assert inside is None
    return tables, types, transactions, changes


def same(value, text, kind):
    """Whether a value is what the database shows."""
    if text == "\\N" or value is None:
        return text == "\\N" and value is None
    if kind.endswith("[]"):
        elements = text[1:-1].split(",")
        return len(value) == len(elements) and all(same(*p, kind[:-2]) for p in zip(value, elements))
    if kind == "boolean":
        return value is (text == "t")
    if kind in ("real", "double precision"):
        form = "<f" if kind == "real" else "<d"
        return struct.pack(form, float(value)) == struct.pack(form, float(text))
    if kind in ("smallint", "integer", "bigint") or kind.startswith("numeric"):
        return isinstance(value, Number) and value == text and Decimal(value) == Decimal(text)
    if "." in value and kind.startswith("timestamp"):
        # The database drops zeros at the end of the fraction, the item has them.
        value, text = value.rstrip("0"), text if "." in text else text + "."
    return value == text.rstrip(" ")


def compare(tables, types, path):
    wrong, seen = [], collections.Counter()
    with open(path, encoding="utf-8", newline="") as file:
        for fields in csv.reader(file):
            table = fields[0].lstrip("@")
            if fields[0].startswith("@"):
                columns, left = fields[1:], collections.defaultdict(list)
                for row in tables[table].values():
                    left[row[columns[0]]].append(row)
                seen[table] = 0
                continue
            seen[table] += 1
            found = [
                row for row in left[fields[1].rstrip(" ")]
                if all(same(row[c], t, types[table][c]) for c, t in zip(columns, fields[1:]))]
            if len(found) != 1 or len(found[0]) != len(columns):
                wrong.append(f"{len(found)} rows are {fields}")
            else:
                left[fields[1].rstrip(" ")].remove(found[0])
    for table, rows in tables.items():
        if len(rows) != seen[table]:
            wrong.append(f"{table}: {len(rows)} rows instead of {seen[table]}")
    return wrong


def main():
    tables, types, transactions, changes = play(lines_of(sys.argv[1]))
    wrong = compare(tables, types, sys.argv[2])
    print("\n".join(wrong[:5] + [f"{transactions} transactions, {changes} changes"]))
    sys.exit(1 if wrong else 0)


main()
