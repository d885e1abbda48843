#!/usr/bin/env bash
# The server cabinet number as the host sets it, or does not.
source "$(dirname "$0")/script_lib.bash" "$@"

# Never set: the number reads 0, so CA 0 passes and any other is refused.
out=$(host --no-cabinet <<'SCRIPT'
{"op":"request","OC":13105,"CA":0}
{"op":"request","OC":13105,"CA":1}
SCRIPT
)
expect_line "$out" '{"op":"reply","OC":13105,"ret":1,"ST":0}'
expect_line "$out" '{"op":"reply","OC":13105,"ret":0,"ST":20}'

# The default is cabinet 0.
out=$(host <<<'{"op":"request","OC":13105,"CA":0}')
expect_line "$out" '{"op":"reply","OC":13105,"ret":1,"ST":0}'

# The whole 32-bit range is a cabinet number; the neighbour is another cabinet.
out=$(host --cabinet 4294967295 <<'SCRIPT'
{"op":"request","OC":13105,"CA":4294967295}
{"op":"request","OC":57347,"CA":4294967294}
{"op":"request","OC":57347,"CA":0}
SCRIPT
)
expect_line "$out" '{"op":"reply","OC":13105,"ret":1,"ST":0}'
expect_line "$out" '{"op":"reply","OC":57347,"ret":0,"ST":20}'
expect_count "$(grep -F '"ST":20' <<<"$out")" 2

finish
