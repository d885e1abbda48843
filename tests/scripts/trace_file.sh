#!/usr/bin/env bash
# The module's file trace, switched on through the registry settings that --registry hands in.
source "$(dirname "$0")/script_lib.bash" "$@"

work=$(mktemp -d)
key='HKEY_LOCAL_MACHINE\SOFTWARE\Debug\EM_MENDER'
cleanup() {
  [ -n "$RUN" ] && "$RUN" reg delete "$key" /f >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT

if [ -n "$RUN" ]; then
  "$RUN" reg delete "$key" /f >/dev/null 2>&1
fi
tracefile=$(winpath "$work/trace.log")
settings=$(winpath "$work/settings.reg")
escaped=${tracefile//\\/\\\\}
printf 'Windows Registry Editor Version 5.00\r\n\r\n[%s]\r\n"FileDebugLevel"=dword:00000005\r\n"TimeStampOn"=dword:00000001\r\n"AppNameOn"=dword:00000001\r\n"TraceFile"="%s"\r\n' \
  "$key" "$escaped" >"$work/settings.reg"

out=$(host --registry "$settings" <<<'{"op":"request","OC":13105,"CA":0}')
expect_line "$out" '{"op":"reply","OC":13105,"ret":1,"ST":0}'

[ -s "$work/trace.log" ] || fail "no trace file written"
mark=$(head -c 2 "$work/trace.log" | od -An -tx1 | tr -d ' \n')
[ "$mark" = "fffe" ] || fail "a new trace file starts with the UTF-16LE mark, not '$mark'"
text=$(iconv -f UTF-16 -t UTF-8 "$work/trace.log" | tr -d '\r')
grep -Fq '*** NodeWarden module EM_MENDER loaded ***' <<<"$text" || fail "no load banner in the trace"
# The banner reads the module file's own version record (the resource of the DLL on Windows).
grep -Eq ' Module description : Update filter module$' <<<"$text" || fail "no module description in the banner"
grep -Eq '     Module version : [0-9]+\.[0-9]+\.[0-9]+\.[0-9]+$' <<<"$text" || fail "no module version in the banner"
grep -Eq '       File version : [0-9]+\.[0-9]+\.[0-9]+\.[0-9]+$' <<<"$text" || fail "no file version in the banner"
# The start and stop lines carry their stamps like every other line.
for banner in '### Starting module EM_MENDER ###' '### Stopping module EM_MENDER ###'; do
  grep -Eq "^\[[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\] EM_MENDER: +$banner\$" <<<"$text" ||
    fail "no stamped line '$banner': $(grep -F "$banner" <<<"$text" | head -2)"
done
grep -Eq '^\[[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\] EM_MENDER:    .*OC 0x3331' <<<"$text" ||
  fail "request line without its time and name stamps: $(grep -F 'OC 0x3331' <<<"$text" | head -2)"
grep -Fq '### Stop of module EM_MENDER completed successfully ###' <<<"$text" || fail "no stop line in the trace"

# Without the settings the module writes no trace.
if [ -n "$RUN" ]; then "$RUN" reg delete "$key" /f >/dev/null 2>&1; fi
rm -f "$work/trace.log"
if [ -z "$RUN" ]; then
  NODEWARDEN_REGISTRY=$work/none.reg host <<<'{"op":"request","OC":13105}' >/dev/null
else
  host <<<'{"op":"request","OC":13105}' >/dev/null
fi
[ ! -e "$work/trace.log" ] || fail "trace written without settings"

finish
