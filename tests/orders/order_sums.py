"""The sums that examples/orders/order-sums.cob prints, from the recorded stream itself."""
import collections, decimal, json, sys

COLUMNS = {
    "stock_moves": ("qty", "amount"),
    "order_lines": ("qty", "amount"),
    "orders": ("n_lines", "net"),
    "payments": (None, "amount"),
}
OPERATIONS = {"I": "IP", "U": "IU", "D": "ID"}


def values(columns, names):
    """Quantity and amount of a row, null for zero."""
    row = {c["name"]: c["value"] for c in columns}
    return [decimal.Decimal(str(row.get(name) or 0)) if name else decimal.Decimal(0) for name in names]


sums = collections.OrderedDict()
with open(sys.argv[1], encoding="utf-8") as stream:
    for line in stream:
        change = json.loads(line, parse_float=decimal.Decimal)
        if change["action"] not in OPERATIONS or change["table"] not in COLUMNS:
            continue
        names = COLUMNS[change["table"]]
        old = values(change.get("identity", []), names)
        new = values(change.get("columns", []), names)
        found = sums.setdefault((change["table"], change["action"]), [0, decimal.Decimal(0), decimal.Decimal(0)])
        found[0] += 1
        for i in range(2):
            found[i + 1] += {"I": new[i], "U": new[i] - old[i], "D": old[i]}[change["action"]]
for (table, action), (records, quantity, amount) in sums.items():
    print(f"{table.upper().replace('_', '-'):<16}{OPERATIONS[action]:<4}{records:>9}{int(quantity):>13}{amount:>16.2f}")
