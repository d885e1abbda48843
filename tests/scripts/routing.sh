#!/usr/bin/env bash
# Routing and the cabinet rule as the host sees them through ApplicationRequest/ApplicationReply.
source "$(dirname "$0")/script_lib.bash" "$@"
export EM_MENDER_TIME_SCALE=1000  # the volume search's 2-second rounds

out=$(host --cabinet 3 <<'SCRIPT'
{"op":"request","OC":57344,"CA":5}
{"op":"request","OC":13105,"CA":4}
{"op":"request","OC":57344}
{"op":"request","OC":13105,"CA":3}
{"op":"request","OC":57347,"CA":3}
{"op":"request","OC":13279,"CA":3}
{"op":"request","OC":13056,"CA":3}
{"op":"request","OC":13224,"CA":3}
{"op":"request","OC":13105,"CA":3,"ST":7,"DA":{"RAW":[1,2,3]}}
{"op":"reply","OC":3200,"CA":3,"DA":{"RAW":[]}}
{"op":"reply","OC":3200,"CA":3}
{"op":"wait","OC":13120,"timeout_ms":60000}
{"op":"sleep","ms":300}
SCRIPT
)

# Another cabinet is refused before the opcode is looked at, even an opcode the module knows.
expect_line "$out" '{"op":"reply","OC":57344,"ret":0,"ST":20}'
expect_line "$out" '{"op":"reply","OC":13105,"ret":0,"ST":20}'
# Without "CA" the command passes the cabinet rule and meets the unknown-opcode answer.
expect_line "$out" '{"op":"reply","OC":57344,"ret":0,"ST":1}'
# The server start check is answered at once with ST 0, added when the command had none...
expect_line "$out" '{"op":"reply","OC":13105,"ret":1,"ST":0}'
# ...and replacing a status it had; the data travels back untouched.
expect_line "$out" '{"op":"reply","OC":13105,"ret":1,"ST":0,"DA":{"RAW":[1,2,3]}}'
expect_line "$out" '{"op":"reply","OC":57347,"ret":0,"ST":1}'
# The last job opcode reaches its (absent) handler; the repository-access opcode reaches the settings,
# which look for the default volume label and, without such a volume here, fail after three rounds.
expect_line "$out" '{"op":"reply","OC":13279,"ret":0,"ST":1}'
expect_line "$out" '{"op":"reply","OC":13224,"ret":1,"ST":6,"DA":"Can'"'"'t find volume"}'
# The check's family reaches the check: the number of updates before any check is 0.
expect_line "$out" '{"op":"reply","OC":13056,"ret":1,"ST":0,"DA":0}'
# A scan state without data is watched but changes nothing: the echo has no "ret" and no status.
expect_line "$out" '{"op":"reply","OC":3200,"ST":null,"DA":{"RAW":[]}}'
expect_line "$out" '{"op":"reply","OC":3200,"ST":null}'
# Eleven answers; the start requests ran a check on the scheduler's thread, which ended with
# CM_UmDataChanged (the two wake-ups may fold into one check). Nothing else went to the host.
[ "$(grep -c '"op":"reply"' <<<"$out")" -eq 11 ] || fail "expected 11 replies"$'\n'"$out"
grep -q '^{"op":"event","OC":13120,' <<<"$out" || fail "no CM_UmDataChanged after the start requests"$'\n'"$out"
expect_no_match "$out" '"op":"(host-request|error|timeout)"'
expect_no_match "$out" '"op":"event","OC":(1312[^0]|131[013-9])'

finish
