#!/usr/bin/env bash
# Whole-process timing of the transfer tool against the test servers' nginx:
#   (a) one 100 MB file, FileDownLoad against `curl -s -o`, alternating, RUNS runs each: medians
#       and their ratio (target: at most 1.10);
#   (b) 1,000 files of 4 KB, one run of the tool per file as the mirror runs it: total and per
#       file, beside `curl -s -o` run the same way, and the share of a run that is the process's
#       start (runs of `FileDownLoad --help`, and runs against a port where nothing listens, which
#       add libcurl's start and a refused connection), beside a run of /bin/true, the floor of any
#       process on the machine.
#
#   bench/filedownload_bench.sh [TOOL] [RUNS]
#     TOOL  the built tool (default build/release/tools/filedownload/FileDownLoad); nothing is built
#     RUNS  runs of (a) per program (default 5)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
tool=${1:-$root/build/release/tools/filedownload/FileDownLoad}
runs=${2:-5}
small_files=1000
[ -x "$tool" ] || { echo "no tool at $tool (cmake --preset release && cmake --build --preset release --target FileDownLoad)" >&2; exit 2; }
command -v curl >/dev/null || { echo "curl missing (scripts/install-deps.sh)" >&2; exit 2; }
unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY EM_MENDER_CA_FILE

state=$(mktemp -d)
stop() {
  python3 "$root/tests/support/servers.py" down --state "$state" >/dev/null 2>&1 || true
  rm -rf "$state"
}
trap stop EXIT
python3 "$root/tests/support/servers.py" up --state "$state" >/dev/null
declare -A S=()
while IFS='=' read -r key value; do S[$key]=$value; done <"$state/servers.env"
web=127.0.0.1:${S[HTTP_PORT]}
out=$state/out
mkdir -p "$out" "${S[WWW]}/bench/small"

# Microseconds from bash's own clock: no process started for the reading.
us() { echo "${EPOCHREALTIME//[!0-9]/}"; }
median() { sort -n | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }
ms() { awk -v n="$1" 'BEGIN { printf "%.2f", n / 1e3 }'; }  # microseconds as milliseconds

# --- (a) one large file --------------------------------------------------------------------------
head -c $((100 * 1024 * 1024)) /dev/urandom >"${S[WWW]}/bench/big.bin"
"$tool" -s "$web" -r bench/big.bin -l "$out/warm.bin"  # the file in the page cache, nginx warm
cmp -s "$out/warm.bin" "${S[WWW]}/bench/big.bin" || { echo "FileDownLoad fetched a wrong file" >&2; exit 1; }
rm -f "$out/warm.bin"
ours=() theirs=()
for ((i = 0; i < runs; ++i)); do
  t=$(us)
  "$tool" -s "$web" -r bench/big.bin -l "$out/big.bin"
  ours+=("$(($(us) - t))")
  rm -f "$out/big.bin"
  t=$(us)
  curl -s -o "$out/big.bin" "http://$web/bench/big.bin"
  theirs+=("$(($(us) - t))")
  rm -f "$out/big.bin"
done
big_ours=$(printf '%s\n' "${ours[@]}" | median)
big_curl=$(printf '%s\n' "${theirs[@]}" | median)

# --- (b) many small files, one run each --------------------------------------------------------
# The programs take turns file by file, and every fifth file the start is measured too, so that
# the load of the machine weighs on all figures alike.
for ((i = 0; i < small_files; ++i)); do head -c 4096 /dev/urandom >"${S[WWW]}/bench/small/f$i.bin"; done
closed_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
small_ours=0 small_curl=0 start_true=0 start_help=0 start_refused=0 start_runs=0
for ((i = 0; i < small_files; ++i)); do
  t=$(us)
  "$tool" -s "$web" -r "bench/small/f$i.bin" -l "$out/f$i.bin"
  t1=$(us)
  curl -s -o "$out/c$i.bin" "http://$web/bench/small/f$i.bin"
  t2=$(us)
  small_ours=$((small_ours + t1 - t)) small_curl=$((small_curl + t2 - t1))
  if ((i % 5 == 0)); then
    /bin/true
    t2a=$(us)
    "$tool" --help >/dev/null
    t3=$(us)
    "$tool" -s "127.0.0.1:$closed_port" -r x -l "$out/x" 2>/dev/null || true
    t4=$(us)
    start_true=$((start_true + t2a - t2)) start_help=$((start_help + t3 - t2a)) start_refused=$((start_refused + t4 - t3))
    start_runs=$((start_runs + 1))
  fi
done
for ((i = 0; i < small_files; ++i)); do
  cmp -s "$out/f$i.bin" "${S[WWW]}/bench/small/f$i.bin" || { echo "f$i.bin differs" >&2; exit 1; }
done
start_true=$((start_true / start_runs)) start_help=$((start_help / start_runs)) start_refused=$((start_refused / start_runs))

per_ours=$((small_ours / small_files))
per_curl=$((small_curl / small_files))
printf '\nFileDownLoad: %s\n\n' "$tool"
printf '%-44s %12s %12s %8s\n' "" "FileDownLoad" "curl -s -o" "ratio"
printf '%-44s %12s %12s %8s\n' "(a) 100 MB file, median of $runs (ms)" "$(ms "$big_ours")" "$(ms "$big_curl")" \
  "$(awk -v a="$big_ours" -v b="$big_curl" 'BEGIN { printf "%.2f", a / b }')"
printf '%-44s %12s %12s %8s\n' "(b) $small_files files of 4 KB, total (ms)" "$(ms "$small_ours")" "$(ms "$small_curl")" \
  "$(awk -v a="$small_ours" -v b="$small_curl" 'BEGIN { printf "%.2f", a / b }')"
printf '%-44s %12s %12s\n' "    per file (ms)" "$(ms "$per_ours")" "$(ms "$per_curl")"
printf '%-44s %12s\n' "    any process: /bin/true run (ms)" "$(ms "$start_true")"
printf '%-44s %12s\n' "    start: --help run (ms)" "$(ms "$start_help")"
printf '%-44s %12s\n' "    start: run against a closed port (ms)" "$(ms "$start_refused")"
awk -v h="$start_help" -v r="$start_refused" -v p="$per_ours" \
  'BEGIN { printf "    share of a 4 KB run that is start: %.0f%% (--help), %.0f%% (closed port)\n", 100 * h / p, 100 * r / p }'
