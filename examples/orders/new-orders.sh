#!/bin/sh
# Counts the new orders in a message file, and adds up what they cost.
capread --layout layouts.json -exthdr -yyyy -recnum --dset sales:orders shop.msg |
    jq -nr '[inputs | select(.op == "c").after.NET * 100 | round] | "\(length) orders, \(add / 100)"'
