"""Whether a table that fwlog sql filled holds what the lines of JSON on standard input say,
which insert its rows in their order.

usage: copy_against_json.py sqlite DATABASE TABLE < LINES
       copy_against_json.py csv FILE < LINES"""
import csv, json, sqlite3, sys

csv.field_size_limit(1 << 30)
if sys.argv[1] == "sqlite":
    rows = sqlite3.connect(sys.argv[2]).execute(f'SELECT * FROM "{sys.argv[3]}" ORDER BY rowid')
    names = [column[0] for column in rows.description]
else:
    rows = csv.reader(open(sys.argv[2], encoding="utf-8", newline=""), strict=True)
    names = next(rows)


def same(kind, value, said):
    """value: of the table.  Floating point is compared as such, all else as text."""
    if said is None or value is None:
        return value in (None, "") and said in (None, "")
    if isinstance(said, list):
        return str(value).replace('"', "") == "{" + ",".join(said) + "}"
    if kind in "ER" and said != "NaN":
        return float(value) == float(said)
    return str(value) == said


kinds = {}
lines = 0
for line in sys.stdin:
    change = json.loads(line, parse_int=str, parse_float=str)
    if "schema" in change:
        kinds = {item["name"]: item["type"] for item in change["schema"]["items"]}
        continue
    lines += 1
    row = dict(zip(names, next(rows), strict=True))
    for name, said in change["after"].items():
        value = row.pop(name)
        assert same(kinds[name], value, said), (lines, name, str(value)[:200], str(said)[:200])
    assert not row, row
assert not list(rows)
print(lines)
