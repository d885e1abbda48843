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

# A carriage return in a text is a line break of that text: it plants no other setting, before or
# after the restart. A text with a terminator inside would be stored cut: it is refused.
host --registry "$settings" >/dev/null <<'SCRIPT'
{"op":"request","OC":57346,"OE":6727,"CA":0,"DA":"updates.example"}
SCRIPT
out=$(host --registry "$settings" <<'SCRIPT'
{"op":"request","OC":57346,"OE":6722,"CA":0,"DA":"alice\r1A47.FFFF.0000=evil.example.com\r1A47.FFFF.0000.Size=16"}
{"op":"request","OC":57345,"OE":6727,"CA":0}
{"op":"request","OC":57346,"OE":6728,"CA":0,"DA":"ab\u0000cd"}
{"op":"request","OC":57345,"OE":6728,"CA":0}
{"op":"restart"}
{"op":"request","OC":57345,"OE":6722,"CA":0}
{"op":"request","OC":57345,"OE":6727,"CA":0}
SCRIPT
)
expect_line "$out" '{"op":"reply","OC":57346,"ret":1,"ST":6}'
expect_line "$out" '{"op":"reply","OC":57345,"ret":1,"ST":0,"DA":"alice||1A47.FFFF.0000=evil.example.com||1A47.FFFF.0000.Size=16"}'
expect_no_match "$out" 'evil.example.com"}$'
expect_no_match "$out" '"DA":"ab'
[ "$(grep -c '"DA":"updates.example"' <<<"$out")" -eq 2 ] || fail "the server address changed: $out"

# nwhost config: numbers must be numbers of the setting's kind; an emptied text reads back empty.
config() {
  if [ -n "$RUN" ]; then
    "$RUN" "$NWHOST" config --module "$MODULE_ARG" --registry "$settings" "$@" 2>&1 | tr -d '\r'
  else
    "$NWHOST" config --module "$MODULE_ARG" --registry "$settings" "$@" 2>&1
  fi
  return "${PIPESTATUS[0]}"
}
for bad in UpdateCheckMode:two UpdateCheckMode:-5 UpdateCheckMode:256 UpdateCheckMode:2x HttpProxyServerPort:4294967296 \
  HttpProxyServerPort:-1 HttpProxyServerPort:' 8080' HttpProxyServerPort:; do
  name=${bad%%:*} value=${bad#*:}
  out=$(config set "$name" "$value")
  code=$?
  [ "$code" -eq 2 ] || fail "set $name '$value' exit status $code, not 2: $out"
  grep -q "takes a whole number" <<<"$out" || fail "set $name '$value' without a clear message: $out"
done
out=$(config get UpdateCheckMode) || fail "get UpdateCheckMode failed: $out"
[ "$out" = 44 ] || fail "a refused number was written: UpdateCheckMode = $out"
out=$(config set HttpProxyServerPort 4294967295) || fail "set of the largest port failed: $out"
[ "$out" = "HttpProxyServerPort = 4294967295" ] || fail "largest number: $out"
out=$(config set RepositoryUserId someone) || fail "set RepositoryUserId failed: $out"
out=$(config set RepositoryUserId '') || fail "emptying RepositoryUserId failed: $out"
[ "$out" = "RepositoryUserId = " ] || fail "emptied text printed as: $out"
out=$(config get RepositoryUserId) || fail "get RepositoryUserId failed: $out"
[ -z "$out" ] || fail "emptied text reads back as: $out"

finish
