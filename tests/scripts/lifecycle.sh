#!/usr/bin/env bash
# Loading, restarting and shutting down, and how the host copes with bad input.
source "$(dirname "$0")/script_lib.bash" "$@"

out=$(host <<'SCRIPT'
{"op":"request","OC":13105}
this is not JSON
{"op":"request"}
{"op":"request","OC":1,"DA":{"bytes":[1]}}
{"op":"request","OC":1,"DA":{"RAW":[256]}}
{"op":"frobnicate"}
[1,2]
{"op":"event","code":"two"}
{"op":"restart"}
{"op":"properties"}
{"op":"request","OC":13105,"CA":0}
{"op":"event","code":2}
{"op":"request","OC":57347}
{"op":"wait","OC":13120,"timeout_ms":50}
SCRIPT
)
status=$?
[ "$status" -eq 0 ] || fail "exit status $status after a script with errors"
# Each bad line is answered with an error and the script goes on.
expect_count "$(grep -F '"op":"error"' <<<"$out")" 7
expect_line "$out" '{"op":"error","message":"the command has no \"OC\""}'
expect_line "$out" '{"op":"error","message":"unknown op \"frobnicate\""}'
# After the restart the fresh module answers as the first one did.
expect_count "$(grep -Fx '{"op":"reply","OC":13105,"ret":1,"ST":0}' <<<"$out")" 2
expect_line "$out" '{"op":"reply","OC":57347,"ret":0,"ST":1}'
grep -Fq '"op":"properties","getProperties":1' <<<"$out" || fail "no properties after the restart"
expect_line "$out" '{"op":"timeout","OC":13120}'
# Standard output carries nothing but JSON objects, one a line.
expect_no_match "$out" '^[^{]|[^}]$'

# Data of every kind makes the round trip through the module's message unchanged.
out=$(host <<'SCRIPT'
{"op":"request","OC":57347,"OE":7,"OI":9,"MI":65537,"DA":"Grüße"}
{"op":"request","OC":57347,"DA":["a","b"]}
{"op":"request","OC":57347,"DA":[1,4294967295,-5]}
{"op":"request","OC":57347,"DA":null}
{"op":"request","OC":57347,"DA":-1}
SCRIPT
)
expect_line "$out" '{"op":"reply","OC":57347,"ret":0,"ST":1,"DA":"Grüße"}'
expect_line "$out" '{"op":"reply","OC":57347,"ret":0,"ST":1,"DA":["a","b"]}'
expect_line "$out" '{"op":"reply","OC":57347,"ret":0,"ST":1,"DA":[1,4294967295,-5]}'
expect_line "$out" '{"op":"reply","OC":57347,"ret":0,"ST":1,"DA":null}'
expect_line "$out" '{"op":"reply","OC":57347,"ret":0,"ST":1,"DA":-1}'

# Restarts at a time scale that runs every bounded wait out at once: the serializer's worker must
# have ended before the module object it runs in is freed (a sanitizer build reports it if not).
out=$({ for _ in $(seq 50); do echo '{"op":"restart"}'; done; echo '{"op":"request","OC":13105}'; } |
  EM_MENDER_TIME_SCALE=100000 host 2>&1)
status=$?
[ "$status" -eq 0 ] || fail "exit status $status after 50 restarts at time scale 100000: $(tail -n 5 <<<"$out")"
expect_line "$out" '{"op":"reply","OC":13105,"ret":1,"ST":0}'

# Without --module the host finds the module file beside itself.
if [ -n "$RUN" ]; then
  out=$("$RUN" "$NWHOST" script <<<'{"op":"properties"}')
else
  out=$("$NWHOST" script <<<'{"op":"properties"}')
fi
grep -Fq '"getProperties":1,"size":452,"name":"EM_MENDER"' <<<"$out" || fail "default module path: $out"

# A module file that is not there: nothing runs and the status says so.
missing=$(dirname "$MODULE")/no-such-module.bin
missing=$(winpath "$missing")
if [ -n "$RUN" ]; then
  out=$("$RUN" "$NWHOST" script --module "$missing" </dev/null 2>/dev/null)
else
  out=$("$NWHOST" script --module "$missing" </dev/null 2>/dev/null)
fi
status=$?
[ "$status" -ne 0 ] || fail "exit status 0 for a missing module file"
[ -z "$out" ] || fail "output for a missing module file: $out"

finish
