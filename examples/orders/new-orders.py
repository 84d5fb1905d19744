#!/usr/bin/env python3
# Counts the new orders in a message file, and adds up what they cost.
import json, subprocess
from decimal import Decimal
words = "capread --layout layouts.json -exthdr -yyyy -recnum --dset sales:orders shop.msg".split()
prices = []
with subprocess.Popen(words, stdout=subprocess.PIPE) as capread:
    for line in capread.stdout:
        change = json.loads(line, parse_float=Decimal)
        if change.get("op") == "c":
            prices.append(change["after"]["NET"])
print(f"{len(prices)} orders, {sum(prices)}")
raise SystemExit(capread.returncode)
