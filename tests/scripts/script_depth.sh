#!/usr/bin/env bash
# Nesting in a script line: the host reads and converts nested arrays and objects down to a fixed
# depth and answers an error line for anything deeper, at any depth, and the script goes on.
source "$(dirname "$0")/script_lib.bash" "$@"

# repeat TEXT N — TEXT N times
repeat() {
  yes -- "$1" | head -n "$2" | tr -d '\n'
}

# A request whose "DA" holds N arrays, one in the other: the line's object and the N arrays are
# N + 1 levels.
nested_request() {
  printf '{"op":"request","OC":57344,"DA":%s1%s}\n' "$(repeat '[' "$1")" "$(repeat ']' "$1")"
}

script=$(mktemp)
trap 'rm -f "$script"' EXIT
{
  nested_request 63              # 64 levels: the deepest a line may be
  nested_request 64              # one too many
  nested_request 60000
  nested_request 200000
  printf '{"op":"request","OC":57344,"DA":%s\n' "$(repeat '{"a":' 100000)"  # cut off, and too deep
  printf '{"op":"request","OC":57344,"DA":{"RAW":[1,2]}}\n'
} >"$script"

out=$(host <"$script")
rc=$?
[ "$rc" -eq 0 ] || fail "nwhost ended with status $rc"

# The deepest allowed value reaches the module (an unknown opcode: ST 1) and comes back whole.
expect_line "$out" "{\"op\":\"reply\",\"OC\":57344,\"ret\":0,\"ST\":1,\"DA\":$(repeat '[' 63)1$(repeat ']' 63)}"
# Deeper ones are refused at the offset of the 65th "[" or "{" of the line.
expect_line "$out" '{"op":"error","message":"JSON nested deeper than 64 levels at offset 95"}'
expect_count "$(grep -F '"JSON nested deeper than 64 levels at offset 95"' <<<"$out")" 3
expect_line "$out" '{"op":"error","message":"JSON nested deeper than 64 levels at offset 347"}'
# The script went on after them.
expect_line "$out" '{"op":"reply","OC":57344,"ret":0,"ST":1,"DA":{"RAW":[1,2]}}'
expect_count "$out" 6

finish
