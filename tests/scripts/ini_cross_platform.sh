#!/usr/bin/env bash
# The configuration files are interchangeable between the two builds: a CommonConfig.ccs written
# by our own POSIX ini writer reads back the same through the Windows private-profile calls (under
# Wine), and one written by the Windows calls reads back the same through our POSIX reader. Both
# builds write the same values, so their files must also be byte for byte the same.
#
# Needs both build trees; run from either build's ctest (the arguments are not used).
set -u

root=$(cd "$(dirname "$0")/../.." && pwd)
native=$root/build/debug/em_unit_tests
windows=$root/build/windows/em_unit_tests.exe
runner=$root/scripts/wine-run

if [ ! -x "$native" ] || [ ! -f "$windows" ]; then
  echo "skipped: other build missing"
  exit 0
fi
command -v wine >/dev/null 2>&1 || { echo "FAIL: wine is not installed" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
FAILURES=0
fail() {
  echo "FAIL: $*" >&2
  FAILURES=$((FAILURES + 1))
}

winpath() { "$runner" winepath -w "$1" 2>/dev/null | tr -d '\r'; }

# run_native write|read ini [print]
run_native() {
  local filter out
  if [ "$1" = write ]; then
    filter=IniCrossPlatform.Write
    out=$(EM_INI_CROSS_WRITE=$2 "$native" --gtest_filter=$filter 2>&1)
  else
    filter=IniCrossPlatform.Read
    out=$(EM_INI_CROSS_READ=$2 EM_INI_CROSS_PRINT=$3 "$native" --gtest_filter=$filter 2>&1)
  fi
  grep -q '\[       OK \]' <<<"$out" || fail "native $filter did not pass:"$'\n'"$out"
}

run_windows() {
  local filter out
  if [ "$1" = write ]; then
    filter=IniCrossPlatform.Write
    out=$(cd "$root/build/windows" && EM_INI_CROSS_WRITE=$(winpath "$2") "$runner" ./em_unit_tests.exe --gtest_filter=$filter 2>&1)
  else
    filter=IniCrossPlatform.Read
    out=$(cd "$root/build/windows" && EM_INI_CROSS_READ=$(winpath "$2") EM_INI_CROSS_PRINT=$(winpath "$3") \
      "$runner" ./em_unit_tests.exe --gtest_filter=$filter 2>&1)
  fi
  grep -q '\[       OK \]' <<<"$out" || fail "Windows $filter did not pass (a build older than this check?):"$'\n'"$out"
}

# Written natively, read by both.
run_native write "$work/native.ccs"
run_native read "$work/native.ccs" "$work/native-by-native.txt"
run_windows read "$work/native.ccs" "$work/native-by-windows.txt"
# Written by the Windows calls, read by both.
run_windows write "$work/windows.ccs"
run_windows read "$work/windows.ccs" "$work/windows-by-windows.txt"
run_native read "$work/windows.ccs" "$work/windows-by-native.txt"

if [ "$FAILURES" -eq 0 ]; then
  [ -s "$work/native-by-native.txt" ] || fail "empty print"
  diff -u "$work/native-by-native.txt" "$work/native-by-windows.txt" >&2 ||
    fail "the Windows calls read the POSIX-written file differently"
  diff -u "$work/windows-by-windows.txt" "$work/windows-by-native.txt" >&2 ||
    fail "the POSIX reader reads the Windows-written file differently"
  diff -u "$work/native-by-native.txt" "$work/windows-by-windows.txt" >&2 ||
    fail "the two writers stored different values"
  cmp "$work/native.ccs" "$work/windows.ccs" >&2 || fail "the two writers produced different files"
fi

if [ "$FAILURES" -ne 0 ]; then
  echo "$FAILURES check(s) failed" >&2
  exit 1
fi
echo "all checks passed ($(wc -l <"$work/native-by-native.txt") lines read alike in both directions)"
exit 0
