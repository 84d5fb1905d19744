#!/usr/bin/env python3
"""Holds lines of JSON to a JSON schema.

usage: schema_check.py [--wrong] SCHEMA LINES
  --wrong  none of the lines may keep to it

Prints the lines that are not as they should be.  Exit status 0: there are none, 77: the
validator is not installed (Debian package python3-jsonschema)."""
import json
import sys

try:
    from jsonschema import Draft202012Validator
except ImportError:
    sys.exit(77)


def load(line):
    """NaN and Infinity outside of strings, which the parser would take, are no JSON."""
    return json.loads(line, parse_constant=lambda word: {"no JSON": word})


arguments = sys.argv[1:]
wrong = arguments[:1] == ["--wrong"]
schema_name, lines_name = arguments[wrong:]
with open(schema_name, encoding="utf-8") as file:
    schema = json.load(file)
Draft202012Validator.check_schema(schema)
validator = Draft202012Validator(schema)
bad = 0
with open(lines_name, encoding="utf-8", newline="\n") as lines:
    for number, line in enumerate(lines, 1):
        if validator.is_valid(load(line)) == wrong:
            bad += 1
            if bad <= 3:
                print(f"{number}: {line}", end="")
                for error in validator.iter_errors(load(line)):
                    print(error)
    print(f"{number} lines, {bad} of them bad")
sys.exit(1 if bad > 0 else 0)
