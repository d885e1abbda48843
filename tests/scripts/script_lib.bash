# Shared by the scripted host tests. Each test is run as
#   bash test.sh <nwhost> <module file> <run prefix>
# where the run prefix is empty for the native build and the Wine runner for the Windows build.
set -u

NWHOST=$1
MODULE=$2
RUN=${3:-}
FAILURES=0

# winpath PATH — the path as the program under test reads it (the Windows form under Wine)
winpath() {
  if [ -n "$RUN" ]; then "$RUN" winepath -w "$1" | tr -d '\r'; else echo "$1"; fi
}

# Wine does not load a module reliably by its Unix path; it gets the Windows form of it.
MODULE_ARG=$(winpath "$MODULE")

# host [nwhost script options...] < script  — the module's output, JSON lines only
host() {
  if [ -n "$RUN" ]; then
    "$RUN" "$NWHOST" script --module "$MODULE_ARG" "$@"
  else
    "$NWHOST" script --module "$MODULE_ARG" "$@"
  fi
}

fail() {
  echo "FAIL: $*" >&2
  FAILURES=$((FAILURES + 1))
}

# expect_line OUTPUT LINE — the output holds exactly this line
expect_line() {
  grep -Fxq -- "$2" <<<"$1" || fail "missing line: $2"$'\n'"--- output was:"$'\n'"$1"
}

# expect_no_match OUTPUT PATTERN — no line of the output matches the extended pattern
expect_no_match() {
  if grep -Eq -- "$2" <<<"$1"; then fail "unexpected line matching $2"$'\n'"--- output was:"$'\n'"$1"; fi
}

# expect_count OUTPUT N — the output has exactly N lines
expect_count() {
  local n
  n=$(grep -c . <<<"$1" || true)
  [ "$n" -eq "$2" ] || fail "expected $2 lines, got $n"$'\n'"--- output was:"$'\n'"$1"
}

finish() {
  if [ "$FAILURES" -ne 0 ]; then
    echo "$FAILURES check(s) failed" >&2
    exit 1
  fi
  echo "all checks passed"
  exit 0
}
