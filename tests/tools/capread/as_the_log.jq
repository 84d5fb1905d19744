# What fwlog dump --json prints, as capread prints the same changes from a capture file.
# Arguments: exthdr, recnum, ascii: whether Kestro had that option.
def text_or_null($n): if . == null then . else (.[:$n] | sub(" +$"; "") | if . == "" then null else . end) end;
# Floating-point numbers of a text file have 7 digits or 12: compared are six.
def digits: if . == 0 then . else (fabs | log10 | floor - 5) as $e | . / pow(10; $e) | round | [., $e] end;
def column:
  if type == "number" then digits
  elif type == "string" then explode | map(if . < 32 or . > 126 then 126 else . end) | implode
  else . end;
def in_columns: if . then map_values(if type == "array" then map(column) else column end) else . end;
select(.op)
| if $from_log then
    (if .op == "r" then .op = "c" else . end)
    | .source |= (.position = null | .xid = null | .lsn = null | .commit_us = null)
    | .transaction = null
    | .ts_ms |= (. / 1000 | floor * 1000)
    | if $recnum then . else .source.record = null end
    | if $exthdr then
        .source.program |= (if . then sub(" .*"; "") | sub(".*/"; "") | text_or_null(24) else . end)
        | .source.user |= text_or_null(8)
        | .source.login |= text_or_null(24)
      else .source |= (.program = null | .user = null | .login = null | .pid = null) end
  else . end
| if $ascii then (.before, .after) |= in_columns else . end
