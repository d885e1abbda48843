#!/usr/bin/env bash
# The update settings through the configuration requests, with the settings files in a folder of
# the test's own, named by the host's registry keys.
source "$(dirname "$0")/script_lib.bash" "$@"

work=$(mktemp -d)
base='HKEY_LOCAL_MACHINE\SOFTWARE\Hadley Brandt\Management\Node Warden'
cleanup() {
  [ -n "$RUN" ] && "$RUN" reg delete "$base" /f >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$work/data" "$work/bin"

esc() { local p; p=$(winpath "$1"); echo "${p//\\/\\\\}"; }
[ -n "$RUN" ] && "$RUN" reg delete "$base" /f >/dev/null 2>&1
printf 'Windows Registry Editor Version 5.00\r\n\r\n[%s\\DATA]\r\n"DataRoot"="%s"\r\n\r\n[%s\\Setup]\r\n"BinRoot"="%s"\r\n' \
  "$base" "$(esc "$work/data")" "$base" "$(esc "$work/bin")" >"$work/settings.reg"
settings=$(winpath "$work/settings.reg")

# The installation's defaults, as shipped: UTF-16LE with its mark.
{ printf '\xff\xfe'; printf '[DefaultConfig]\r\n1A40.Size=12\r\n1A40=D:\\shipped\r\n' | iconv -f UTF-8 -t UTF-16LE; } \
  >"$work/bin/DefaultConfig.ccs"

common() { iconv -f UTF-16 -t UTF-8 "$work/data/CommonConfig.ccs" | tr -d '\r'; }

# A request before the cabinet is known loads the settings first and is answered.
out=$(host --registry "$settings" --no-cabinet <<'SCRIPT'
{"op":"request","OC":57345,"OE":6720,"CA":0}
{"op":"request","OC":57346,"OE":6724,"CA":0,"DA":300}
{"op":"request","OC":57345,"OE":6724,"CA":0}
{"op":"request","OC":57345,"OE":1040,"CA":0}
{"op":"request","OC":57345,"OE":6735,"CA":0}
{"op":"request","OC":57346,"OE":6735,"CA":0,"DA":1}
{"op":"request","OC":57346,"OE":6723,"CA":0,"DA":"abcdefghijklmnop"}
{"op":"request","OC":57346,"OE":6804,"CA":0,"DA":"abcdefghijklmnopq"}
{"op":"request","OC":57345,"OE":6723,"CA":0}
{"op":"request","OC":57345,"OE":6804,"CA":0}
SCRIPT
)
expect_line "$out" '{"op":"reply","OC":57345,"ret":1,"ST":0,"DA":"D:\\shipped"}'
# A byte setting written with 300 stores 300 (two bytes) and keeps its low 8 bits.
expect_line "$out" '{"op":"reply","OC":57346,"ret":1,"ST":0,"DA":300}'
expect_line "$out" '{"op":"reply","OC":57345,"ret":1,"ST":0,"DA":44}'
# The global mail alert flag and the unassigned OE are not settings of update management.
expect_line "$out" '{"op":"reply","OC":57345,"ret":0,"ST":1}'
expect_line "$out" '{"op":"reply","OC":57346,"ret":0,"ST":1,"DA":1}'
# Passwords are answered in clear and stored enciphered: one block, then two.
expect_line "$out" '{"op":"reply","OC":57345,"ret":1,"ST":0,"DA":"abcdefghijklmnop"}'
expect_line "$out" '{"op":"reply","OC":57345,"ret":1,"ST":0,"DA":"abcdefghijklmnopq"}'
text=$(common)
grep -Fxq '1A44.FFFF.0000=300' <<<"$text" || fail "byte setting not stored as 300: $text"
grep -Fxq '1A44.FFFF.0000.Size=2' <<<"$text" || fail "byte setting not stored with size 2"
grep -Eq '^1A43\.FFFF\.0000=[A-Za-z0-9+/]{22}==$' <<<"$text" || fail "16-character password not 24 base64 characters"
grep -Fxq '1A43.FFFF.0000.Size=24' <<<"$text" || fail "16-character password size"
grep -Eq '^1A94\.FFFF\.0000=[A-Za-z0-9+/]{43}=$' <<<"$text" || fail "17-character password not 44 base64 characters"
grep -Fq 'abcdefghijklmnop' <<<"$text" && fail "a password is stored in clear"

# After a restart the settings come back from the file; an empty password deletes its key; an
# empty repository path answers the shipped default.
out=$(host --registry "$settings" <<'SCRIPT'
{"op":"request","OC":57345,"OE":6723,"CA":0}
{"op":"request","OC":57346,"OE":6723,"CA":0}
{"op":"request","OC":57346,"OE":6720,"CA":0,"DA":"/somewhere/else"}
{"op":"request","OC":57346,"OE":6720,"CA":0}
SCRIPT
)
expect_line "$out" '{"op":"reply","OC":57345,"ret":1,"ST":0,"DA":"abcdefghijklmnop"}'
expect_line "$out" '{"op":"reply","OC":57346,"ret":1,"ST":0}'
expect_line "$out" '{"op":"reply","OC":57346,"ret":1,"ST":0,"DA":"/somewhere/else"}'
expect_line "$out" '{"op":"reply","OC":57346,"ret":1,"ST":0,"DA":"D:\\shipped"}'
text=$(common)
grep -q '^1A43\.FFFF\.0000=' <<<"$text" && fail "emptied password still stored"
grep -Fxq '1A43.FFFF.0000.Size=0' <<<"$text" || fail "emptied password without size 0: $text"

finish
