"""Whether the CSV files of a directory hold what the lines of JSON on standard input say.

usage: csv_against_json.py DIRECTORY < LINES"""
import csv, json, os, sys

rows = {}  # position -> its row, a dictionary, and its file
for name in os.listdir(sys.argv[1]):
    with open(os.path.join(sys.argv[1], name), encoding="utf-8", newline="") as text:
        for row in csv.DictReader(text, strict=True):
            assert row["_position"] not in rows, row
            assert None not in row and None not in row.values(), row
            rows[row["_position"]] = (name, row)


def fields(prefix, values):
    """The fields of a row's values: null and the empty text read as one."""
    found = {}
    for name, value in (values or {}).items():
        elements = value if isinstance(value, list) else [value]
        for i, element in enumerate(elements, 1):
            if isinstance(element, dict):
                element = "0x" + element["hex"]
            found[f"{prefix}{name}[{i}]" if isinstance(value, list) else prefix + name] = element or ""
    return found


lines = 0
for line in sys.stdin:
    change = json.loads(line, parse_int=str, parse_float=str)
    if "schema" in change:
        continue
    lines += 1
    source = change["source"]
    name, row = rows.pop(source["position"])
    assert name == f"{source['database']}.{source['dataset']}.csv", (name, source)
    expected = {"_op": change["op"], "_position": source["position"]}
    expected |= fields("", change["after"] or change["before"])
    old = fields("before.", change["before"])
    for field in row:
        if field.startswith("before."):
            expected[field] = old.pop(field, "")
        elif field not in expected:  # an element of an array that is null as a whole
            base = field.partition("[")[0]
            assert expected.get(base) == "", (field, expected)
            expected[field] = ""
    assert all(value == "" for value in old.values()), old
    for field, value in row.items():
        assert value == expected[field], (line, field, value, expected[field])
assert not rows, rows
print(lines)
