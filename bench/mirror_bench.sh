#!/usr/bin/env bash
# Whole-process timing of the mirror's tree update against the test servers' nginx:
#   (a) the first mirror of a sample tree (2,000 leaves by default) into an empty repository with
#       `nwhost mirror update`, beside a shell baseline that does the same work with curl, unzip and
#       cp: fetch versionTree.txt and Stop.txt, fetch versionAll.exe and unpack it, fetch
#       ZT_par_tree.exe and unpack it into a temp folder, copy each leaf of versionAll.txt from
#       there into the repository (one `cp -r` per leaf, as the module goes leaf by leaf), fetch
#       backtrack.txt, copy versionTree.txt last. The two take turns, RUNS runs each: medians and
#       their ratio (target: at most 1.2), and both repositories compared file by file;
#   (b) the module's peak resident set (/usr/bin/time -v) on one more first mirror;
#   (c) the up-to-date run (the repository already at the server's version): its wall time and the
#       number of requests nginx logged for it.
#
#   bench/mirror_bench.sh [BUILD] [RUNS] [LEAVES]
#     BUILD   a release build directory holding nwhost, libEM_MENDER.so, FileDownLoad, repotool and
#             the archive stub (default build/release); nothing is built
#     RUNS    runs of (a) and (c) per program (default 5)
#     LEAVES  leaves of the sample tree (default 2000)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
build=$(cd "${1:-$root/build/release}" 2>/dev/null && pwd) || { echo "no build directory ${1:-build/release}" >&2; exit 2; }
runs=${2:-5}
leaves=${3:-2000}
nwhost=$build/nwhost
module=$build/libEM_MENDER.so
tool=$build/tools/filedownload/FileDownLoad
repotool=$build/tools/repotool/repotool
stub=$build/tools/sfx/sfx.exe
for f in "$nwhost" "$module" "$tool" "$repotool" "$stub"; do
  [ -f "$f" ] || {
    echo "missing $f (cmake --preset release && cmake --build --preset release --target nwhost EM_MENDER FileDownLoad repotool em_sfx_stub)" >&2
    exit 2
  }
done
if grep -q '^CMAKE_BUILD_TYPE:[A-Z]*=Debug' "$build/CMakeCache.txt" 2>/dev/null ||
  grep -q '^EM_SANITIZE:BOOL=ON' "$build/CMakeCache.txt" 2>/dev/null; then
  echo "warning: $build is a debug or sanitizer build; the figures are not those of a release" >&2
fi
for c in curl unzip /usr/bin/time; do
  command -v "$c" >/dev/null || { echo "$c missing (scripts/install-deps.sh)" >&2; exit 2; }
done
unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY

state=$(mktemp -d)
stop() {
  python3 "$root/tests/support/servers.py" down --state "$state/servers" >/dev/null 2>&1 || true
  rm -rf "$state"
}
trap stop EXIT
python3 "$root/tests/support/servers.py" up --state "$state/servers" >/dev/null
declare -A S=()
while IFS='=' read -r key value; do S[$key]=$value; done <"$state/servers/servers.env"
access_log=$state/servers/logs/nginx-access.log
web=127.0.0.1:${S[HTTP_PORT]}
url=http://$web/bench/tree

# The tree, the agent's working location as the installation leaves it (the transfer tool and
# UpdateIndicatorFile.txt), and the module's work directory below a TempRoot of our own.
"$repotool" sample --leaves "$state/leaves" --count "$leaves" >/dev/null
"$repotool" build --leaves "$state/leaves" --out "${S[WWW]}/bench/tree" --stub "$stub" --client "$state/agent0" >/dev/null
cp "$tool" "$state/agent0/"
mkdir -p "$state/temproot"
printf 'Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Hadley Brandt\\Management\\Node Warden\\Setup]\r\n"TempRoot"="%s"\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Hadley Brandt\\Management\\Node Warden\\DATA]\r\n"DataRoot"="%s"\r\n' \
  "$state/temproot" "$state/temproot" >"$state/settings.reg"

# Microseconds from bash's own clock: no process started for the reading.
us() { echo "${EPOCHREALTIME//[!0-9]/}"; }
median() { sort -n | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }
ms() { awk -v n="$1" 'BEGIN { printf "%.1f", n / 1e3 }'; }
requests() { grep -c ' "GET /bench/tree/' "$access_log" || true; }

# run_module [--quiet] — one `nwhost mirror update` into $state/repo; output in $state/module.out
run_module() {
  "$nwhost" mirror --module "$module" --registry "$state/settings.reg" --server "$web" --path /bench/tree \
    --repository "$state/repo" --workdir "$state/agent" --tool "$tool" "$@" update >"$state/module.out" 2>&1
}
fresh() {
  rm -rf "$state/repo" "$state/agent" "$state/baseline" "$state/btmp" "$state/temproot/EM_MENDER"
  cp -a "$state/agent0" "$state/agent"
}
baseline() {
  local repo=$state/baseline tmp=$state/btmp rel
  mkdir -p "$repo" "$tmp/par"
  curl -fsS -o "$tmp/versionTree.txt" "$url/versionTree.txt"
  curl -fsS -o "$tmp/Stop.txt" "$url/Stop.txt"
  curl -fsS -o "$tmp/versionAll.exe" "$url/versionAll.exe"
  unzip -qo "$tmp/versionAll.exe" -d "$tmp"
  curl -fsS -o "$tmp/par/ZT_par_tree.exe" "$url/ZT_par_tree.exe"
  unzip -qo "$tmp/par/ZT_par_tree.exe" -d "$tmp/par"
  # From inside the unpacked tree, so that `cp --parents` makes the leaf's path below the
  # repository: one process per leaf.
  (
    cd "$tmp/par"
    while IFS=$'\t' read -r rel _; do
      case $rel in '#'* | '') continue ;; esac
      cp -r --parents "$rel" "$repo/"
    done < <(tr -d '\r' <"$tmp/versionAll.txt")
  )
  curl -fsS -o "$tmp/backtrack.txt" "$url/backtrack.txt"
  cp "$tmp/versionTree.txt" "$repo/versionTree.txt"
}
# manifest DIR — every directory by name, every file by name and SHA-256, sorted
manifest() {
  (
    cd "$1"
    find . -mindepth 1 ! -type f -printf '%y %p\n'
    find . -type f -print0 | xargs -0 -r sha256sum | sed -E 's/^\\?([0-9a-f]{64}) [ *](.*)$/f \2 \1/'
  ) | LC_ALL=C sort
}

# --- (a) the first mirror -----------------------------------------------------------------------
# One run of each first: nginx and the page cache warm, and the two results compared.
fresh
run_module --quiet || { echo "nwhost mirror update failed: $(tail -5 "$state/module.out")" >&2; exit 1; }
baseline
manifest "$state/repo" >"$state/module.manifest"
manifest "$state/baseline" >"$state/baseline.manifest"
same="same files and contents"
if ! cmp -s "$state/module.manifest" "$state/baseline.manifest"; then
  same="differ in $(diff "$state/module.manifest" "$state/baseline.manifest" | grep -c '^[<>]') entries"
  diff "$state/module.manifest" "$state/baseline.manifest" | head -10 >&2
fi
ours=() theirs=() first_requests='' base_requests=''
for ((i = 0; i < runs; ++i)); do
  fresh
  n=$(requests)
  t=$(us)
  run_module --quiet || { echo "nwhost mirror update failed: $(tail -5 "$state/module.out")" >&2; exit 1; }
  ours+=("$(($(us) - t))")
  first_requests=$(($(requests) - n))
  n=$(requests)
  t=$(us)
  baseline
  theirs+=("$(($(us) - t))")
  base_requests=$(($(requests) - n))
done
first_ours=$(printf '%s\n' "${ours[@]}" | median)
first_base=$(printf '%s\n' "${theirs[@]}" | median)

# --- (b) peak resident set ----------------------------------------------------------------------
# GNU time reports the largest resident set of the process and of the children it waited for (the
# transfer tool's runs); the module's work is in nwhost's own process.
fresh
/usr/bin/time -v -o "$state/time.txt" "$nwhost" mirror --module "$module" --registry "$state/settings.reg" \
  --server "$web" --path /bench/tree --repository "$state/repo" --workdir "$state/agent" --tool "$tool" --quiet update \
  >/dev/null 2>&1
rss=$(awk -F': ' '/Maximum resident set size/ { print $2 }' "$state/time.txt")

# --- (c) the up-to-date run ---------------------------------------------------------------------
upto=() upto_requests=()
for ((i = 0; i < runs; ++i)); do
  n=$(requests)
  t=$(us)
  run_module || { echo "the up-to-date run failed: $(tail -5 "$state/module.out")" >&2; exit 1; }
  upto+=("$(($(us) - t))")
  upto_requests+=("$(($(requests) - n))")
  grep -q 'Updating is not necessary!' "$state/module.out" ||
    { echo "the up-to-date run did not say so: $(cat "$state/module.out")" >&2; exit 1; }
done
upto_ms=$(printf '%s\n' "${upto[@]}" | median)
upto_req=$(printf '%s\n' "${upto_requests[@]}" | sort -u | tr '\n' ' ')

printf '\nmirror of %s leaves from nginx; %s\n' "$leaves" "$nwhost"
printf 'machine: %s cores, load %s\n\n' "$(nproc)" "$(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-46s %12s %10s %14s\n' "" "wall (ms)" "requests" "peak RSS (KB)"
printf '%-46s %12s %10s %14s\n' "(a) first mirror, nwhost mirror update" "$(ms "$first_ours")" "$first_requests" "$rss"
printf '%-46s %12s %10s %14s\n' "    first mirror, curl + unzip + cp" "$(ms "$first_base")" "$base_requests" ""
printf '%-46s %12s\n' "    ratio module / baseline (target <= 1.2)" \
  "$(awk -v a="$first_ours" -v b="$first_base" 'BEGIN { printf "%.2f", a / b }')"
printf '%-46s %12s %10s\n' "(c) up-to-date run, nwhost mirror update" "$(ms "$upto_ms")" "$upto_req"
printf '\nmedians of %s runs; the two repositories: %s\n' "$runs" "$same"
printf 'runs (ms): module %s | baseline %s | up-to-date %s\n' \
  "$(for v in "${ours[@]}"; do ms "$v"; echo -n ' '; done)" \
  "$(for v in "${theirs[@]}"; do ms "$v"; echo -n ' '; done)" \
  "$(for v in "${upto[@]}"; do ms "$v"; echo -n ' '; done)"
