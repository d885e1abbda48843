#!/usr/bin/env bash
# One comparison of a check with the simulated engine: a repository of LEAVES sample leaves (the
# information tree as the mirror leaves it, every tenth package fetched) and a machine of 99
# installed components (repotool inventory), timed in-process by check_bench.
#
#   bench/check_bench.sh [BUILD] [LEAVES]
#     BUILD   a release build directory holding bench/check_bench, repotool and the archive stub
#             (default build/release); nothing is built
#     LEAVES  leaves of the sample tree (default 2000)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
build=$(cd "${1:-$root/build/release}" 2>/dev/null && pwd) || { echo "no build directory ${1:-build/release}" >&2; exit 2; }
leaves=${2:-2000}
bench=$build/bench/check_bench
repotool=$build/tools/repotool/repotool
stub=$build/tools/sfx/sfx.exe
for f in "$bench" "$repotool" "$stub"; do
  [ -f "$f" ] || { echo "missing $f (cmake --preset release && cmake --build --preset release --target check_bench repotool em_sfx_stub)" >&2; exit 2; }
done
if grep -q '^CMAKE_BUILD_TYPE:[A-Z]*=Debug' "$build/CMakeCache.txt" 2>/dev/null ||
  grep -q '^EM_SANITIZE:BOOL=ON' "$build/CMakeCache.txt" 2>/dev/null; then
  echo "warning: $build is a debug or sanitizer build; the figures are not those of a release" >&2
fi
command -v unzip >/dev/null || { echo "unzip missing (scripts/install-deps.sh)" >&2; exit 2; }

state=$(mktemp -d)
trap 'rm -rf "$state"' EXIT
"$repotool" sample --leaves "$state/leaves" --count "$leaves" >/dev/null
"$repotool" build --leaves "$state/leaves" --out "$state/server" --stub "$stub" >/dev/null
mkdir -p "$state/repo" "$state/data/EM_MENDER/UpdateJob/SimulatedEngine" "$state/temp"
unzip -q "$state/server/ZT_par_tree.exe" -d "$state/repo"
n=0
while IFS=$'\t' read -r path _ exe _ type _; do
  [[ $path == \#* || $type == L ]] && continue
  n=$((n + 1))
  if ((n % 10 == 0)); then cp "$state/server/$path/$exe" "$state/repo/$path/"; fi
done < <(unzip -p "$state/server/versionAll.exe" versionAll.txt | tr -d '\r')
"$repotool" inventory --leaves "$state/leaves" --out "$state/data/EM_MENDER/UpdateJob/SimulatedEngine/inventory.txt" --max 99
printf 'Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Hadley Brandt\\Management\\Node Warden\\DATA]\r\n"DataRoot"="%s"\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Hadley Brandt\\Management\\Node Warden\\Setup]\r\n"TempRoot"="%s"\r\n' \
  "$state/data" "$state/temp" >"$state/registry.reg"

echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "repository: $leaves leaves, $(find "$state/repo" -name zt.par -o -name ztlink.par | wc -l) descriptions; inventory: $(grep -c '^\[component\]' "$state/data/EM_MENDER/UpdateJob/SimulatedEngine/inventory.txt") components"
# CHECK_BENCH_WRAPPER runs the program under a profiler, e.g. "perf record -o /tmp/check.perf".
NODEWARDEN_REGISTRY=$state/registry.reg EM_MENDER_ENGINE='' EM_CHECK_BENCH_REPOSITORY=$state/repo ${CHECK_BENCH_WRAPPER:-} \
  "$bench" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
