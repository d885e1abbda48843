#!/usr/bin/env bash
# Settings handed to the module through --registry.
source "$(dirname "$0")/script_lib.bash" "$@"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if [ -z "$RUN" ]; then
  # The POSIX registry is the file itself: switching the module's console trace on there makes the
  # trace appear on standard error, while standard output keeps carrying JSON lines only.
  printf 'Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Debug\\EM_MENDER]\r\n"ConDebugLevel"=dword:00000005\r\n' \
    >"$work/settings.reg"
  out=$(host --registry "$work/settings.reg" 2>"$work/stderr" <<<'{"op":"request","OC":13105,"CA":0}')
  expect_line "$out" '{"op":"reply","OC":13105,"ret":1,"ST":0}'
  expect_count "$out" 1
  grep -Fq '### Starting module EM_MENDER ###' "$work/stderr" || fail "no start trace on standard error"
  grep -Fq 'EM_MENDER (REQUEST) : CABID 0000: OC 0x3331' "$work/stderr" || fail "no request trace on standard error"

  # Without the file the module stays silent.
  out=$(NODEWARDEN_REGISTRY=$work/none.reg host 2>"$work/stderr" <<<'{"op":"request","OC":13105}')
  [ ! -s "$work/stderr" ] || fail "trace without settings: $(head -c 300 "$work/stderr")"
else
  # On Windows the keys are imported into the system registry before the module is loaded.
  key='HKEY_LOCAL_MACHINE\SOFTWARE\EM_MENDER_HostTest'
  "$RUN" reg delete "$key" /f >/dev/null 2>&1  # a leftover of an earlier run must not count
  printf 'Windows Registry Editor Version 5.00\r\n\r\n[%s]\r\n"Text"="hello world"\r\n"Number"=dword:0000002a\r\n' "$key" \
    >"$work/settings.reg"
  settings=$(winpath "$work/settings.reg")
  out=$(host --registry "$settings" <<<'{"op":"request","OC":13105}')
  expect_line "$out" '{"op":"reply","OC":13105,"ret":1,"ST":0}'
  query=$("$RUN" reg query "$key" 2>/dev/null | tr -d '\r')
  grep -Eq 'Text[[:space:]]+REG_SZ[[:space:]]+hello world' <<<"$query" || fail "imported text missing: $query"
  grep -Eq 'Number[[:space:]]+REG_DWORD[[:space:]]+0x2a' <<<"$query" || fail "imported number missing: $query"
  "$RUN" reg delete "$key" /f >/dev/null 2>&1

  # A settings file that cannot be read stops the host before it loads anything.
  host --registry 'C:\no\such\file.reg' </dev/null >/dev/null 2>&1 && fail "exit status 0 for an unreadable settings file"
fi

finish
