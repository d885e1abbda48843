#!/usr/bin/env bash
# Builds the fuzz targets with libFuzzer (clang, AddressSanitizer, UBSan) and runs each for
# SECONDS (default 60) on a working corpus under build/fuzz/corpus/<name>, seeded from the
# committed one in tests/fuzz/corpus/<name>. Inputs that crash a target are left as
# build/fuzz/crash-<name>-*; keep a small one as a seed once the fault is fixed.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.." || exit 2
seconds=${1:-60}
shift || true

scripts/install-deps.sh
cmake --preset fuzz >/dev/null
mapfile -t all < <(find tests/fuzz -maxdepth 1 -name '*_fuzz.cpp' -printf '%f\n' | sed 's/_fuzz\.cpp$//' | sort)
targets=("${@:-${all[@]}}")
cmake --build --preset fuzz --target "${targets[@]/%/_fuzz}"

status=0
printf '%-12s %12s %10s  %s\n' target executions exec/s result
for t in "${targets[@]}"; do
  work=build/fuzz/corpus/$t
  mkdir -p "$work"
  cp -n tests/fuzz/corpus/"$t"/* "$work"/ 2>/dev/null || true
  log=build/fuzz/$t.log
  if build/fuzz/"${t}"_fuzz -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="build/fuzz/crash-$t-" \
    "$work" >"$log" 2>&1; then
    result=ok
  else
    result="FAULT (see $log)"
    status=1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  printf '%-12s %12s %10s  %s\n' "$t" "${runs:-?}" "${rate:-?}" "$result"
done
exit $status
