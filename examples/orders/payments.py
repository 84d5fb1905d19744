#!/usr/bin/env python3
# Keeps the payments that there are in a file: reads changes as JSON, and acknowledges a
# transaction once the file on disk has it.  One that comes again changes nothing.
import json, os, sys
name = sys.argv[1]
payments = json.load(open(name)) if os.path.exists(name) else {}
for line in sys.stdin:
    change = json.loads(line)
    if change.get("before"):
        payments.pop(change["before"]["PAY-REF"], None)
    if change.get("after"):
        payments[change["after"]["PAY-REF"]] = change["after"]
    if change.get("transaction", {}).get("last"):
        with open(name + ".new", "w") as file:
            json.dump(payments, file)
            file.flush()
            os.fsync(file.fileno())
        os.replace(name + ".new", name)
        directory = os.open(".", os.O_RDONLY)
        os.fsync(directory)  # the new name, too
        os.close(directory)
        print(change["transaction"]["id"], flush=True)
