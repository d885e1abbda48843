#!/usr/bin/env bash
# Crash safety of the mirror's tree update: an update killed at a random moment, as a power cut
# would end it, is followed by a second update that must bring the repository to exactly the state
# an undisturbed update reaches.
#
#   scripts/crash-mirror.sh [--kills N] [--seed S] [--leaves N] [--delay SECONDS] [--keep]
#                           [--build DIR | --nwhost PATH --module PATH --tool PATH --repotool PATH --stub PATH]
#                           [--servers-env FILE]
#
#   --kills N        killed runs (default 100)
#   --seed S         seed of the kill moments (default 4711); the same seed gives the same moments
#                    as fractions of the reference run's duration T: the k-th of N kills comes at a
#                    random moment of the k-th of N equal parts of [0, T]
#   --leaves N       leaves of the sample tree (default 100, at least 20)
#   --delay SECONDS  every kill after exactly this time instead of a random one (to repeat a kill
#                    that found a fault: --kills 1 --delay 0.412)
#   --keep           keep the work directory (printed at the end)
#   --build DIR      the build directory whose nwhost, module, FileDownLoad, repotool and archive
#                    stub are used; they are built there first (default build/release, configured
#                    with the release preset when it is not yet)
#   --nwhost ...     the five programs named one by one instead; nothing is built
#   --servers-env F  the servers.env of running test servers (tests/support/servers.py); without it
#                    the script starts servers of its own and stops them at the end
#
# What happens:
#   1. A sample tree (v1) is built with repotool and mirrored with `nwhost mirror update`; some of
#      the leaves with a package (a third, at most twice the number step 2 touches) are downloaded
#      (`nwhost mirror download LEAF`, and the marker `0` removed, as the job that asks for a
#      download does), so that the repository holds complete leaves beside leaves with their
#      information files only. This is the start state.
#   2. The server moves to v2: complete and information-only leaves (and a link leaf) get a new
#      version, one complete and one information-only leaf are withdrawn, one complete leaf is named
#      in backtrack.txt.
#   3. Reference: from the start state one update runs to its end; its repository is the expected
#      one, its wall time T.
#   4. Each kill: the start state back in place, `nwhost mirror update` started in a session and
#      process group of its own, SIGKILL to the whole group after a random time in [0, T] (the
#      agent and the transfer tool it runs die together, with no chance to clean up, as at a power
#      cut), then one update to its end. It must exit 0 and leave the expected repository: the same
#      directories, files and contents, no backup directory `<leaf>_bk`, no removal in progress
#      `<leaf>~del`, no lock file `1`, no half-written file (`*.new`, `*.part*`, `*.sfx~*`).
#
# SIGKILL is a POSIX matter: this script runs the native build only. The Windows build (under Wine)
# is not covered by it.
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
kills=100
seed=4711
leaf_count=100
fixed_delay=''
keep=0
build=''
nwhost='' module='' tool='' repotool='' stub=''
servers_env=''

usage() {
  sed -n '5,10p' "$0" | sed 's/^# \{0,1\}//' >&2
  exit 2
}
while [ $# -gt 0 ]; do
  case $1 in
    --kills) kills=$2; shift 2 ;;
    --seed) seed=$2; shift 2 ;;
    --leaves) leaf_count=$2; shift 2 ;;
    --delay) fixed_delay=$2; shift 2 ;;
    --keep) keep=1; shift ;;
    --build) build=$2; shift 2 ;;
    --nwhost) nwhost=$2; shift 2 ;;
    --module) module=$2; shift 2 ;;
    --tool) tool=$2; shift 2 ;;
    --repotool) repotool=$2; shift 2 ;;
    --stub) stub=$2; shift 2 ;;
    --servers-env) servers_env=$2; shift 2 ;;
    *) usage ;;
  esac
done
[[ $kills =~ ^[0-9]+$ && $seed =~ ^[0-9]+$ && $leaf_count =~ ^[0-9]+$ ]] || usage
[ "$leaf_count" -ge 20 ] || { echo "crash-mirror: --leaves must be at least 20" >&2; exit 2; }
[ -z "$fixed_delay" ] || [[ $fixed_delay =~ ^[0-9]+(\.[0-9]+)?$ ]] || usage

# --- the programs ---------------------------------------------------------------------------------
if [ -z "$nwhost$module$tool$repotool$stub" ]; then
  build=${build:-$root/build/release}
  if [ ! -f "$build/build.ninja" ]; then
    cmake --preset release -B "$build" >&2 || { echo "crash-mirror: cannot configure $build" >&2; exit 2; }
  fi
  cmake --build "$build" -j2 --target nwhost EM_MENDER FileDownLoad repotool em_sfx_stub >&2 ||
    { echo "crash-mirror: the build in $build failed" >&2; exit 2; }
  nwhost=$build/nwhost module=$build/libEM_MENDER.so tool=$build/tools/filedownload/FileDownLoad
  repotool=$build/tools/repotool/repotool stub=$build/tools/sfx/sfx.exe
fi
for p in nwhost module tool repotool stub; do
  [ -f "${!p}" ] || { echo "crash-mirror: no $p at '${!p}'" >&2; exit 2; }
done

# Transfers go straight to the test server whatever this shell's environment says.
unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY

work=$(mktemp -d /tmp/crash-mirror.XXXXXX)
own_servers=''
cleanup() {
  [ -n "$own_servers" ] && python3 "$root/tests/support/servers.py" down --state "$own_servers" >/dev/null 2>&1
  if [ "$keep" -eq 1 ]; then echo "work directory kept: $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT

if [ -z "$servers_env" ]; then
  own_servers=$work/servers
  python3 "$root/tests/support/servers.py" up --state "$own_servers" >/dev/null ||
    { echo "crash-mirror: the test servers did not start" >&2; exit 2; }
  servers_env=$own_servers/servers.env
fi
declare -A S=()
while IFS='=' read -r key value; do S[$key]=$value; done <"$servers_env"
[ -n "${S[WWW]:-}" ] && [ -n "${S[HTTP_PORT]:-}" ] || { echo "crash-mirror: $servers_env names no nginx" >&2; exit 2; }

# --- the places -----------------------------------------------------------------------------------
# The tree is served below a folder of this run's own; the repository, the working location (the
# transfer tool and its temp area) and the module's work directory (the check log) are private.
remote=crash-mirror-$$-${RANDOM}
srv=${S[WWW]}/$remote
repo=$work/repo
agent=$work/agent
mkdir -p "$work/temproot" "$work/logs" "$srv"
trap 'rm -rf "$srv"; cleanup' EXIT
printf 'Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Hadley Brandt\\Management\\Node Warden\\Setup]\r\n"TempRoot"="%s"\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Hadley Brandt\\Management\\Node Warden\\DATA]\r\n"DataRoot"="%s"\r\n' \
  "$work/temproot" "$work/temproot" >"$work/settings.reg"

# mirror ACTION [LEAF] — one call of the module's repository function, its output to standard output
mirror() {
  "$nwhost" mirror --module "$module" --registry "$work/settings.reg" --server "127.0.0.1:${S[HTTP_PORT]}" \
    --path "/$remote/tree" --repository "$repo" --workdir "$agent" --tool "$tool" "$@"
}
rt() { "$repotool" "$@" >/dev/null; }
die() {
  echo "crash-mirror: $*" >&2
  exit 1
}
us() { echo "${EPOCHREALTIME//[!0-9]/}"; }
seconds() { printf '%d.%03d' $(($1 / 1000000)) $((($1 % 1000000) / 1000)); }

# manifest DIR — every directory and link by name, every file by name and SHA-256, sorted
manifest() {
  (
    cd "$1" || exit 1
    find . -mindepth 1 ! -type f -printf '%y %p\n'
    find . -type f -print0 | xargs -0 -r sha256sum | sed -E 's/^\\?([0-9a-f]{64}) [ *](.*)$/f \2 \1/'
  ) | LC_ALL=C sort
}
# leftovers DIR — what an interrupted update may leave and a finished one must not: a leaf's
# backup and its removal in progress, the lock file of a replacement, half-written copies,
# transfers and unpacked files, the probe of the write test
leftovers() {
  find "$1" \( -type d \( -name '*_bk' -o -name '*~del' \) \) -o \
    \( -type f \( -name 1 -o -name '*.new' -o -name '*.part*' -o -name '*.sfx~*' -o -name 'checkFileAccess.*' \) \) |
    sed "s#^$1/##"
}

started=$(us)

# --- 1. the start state ---------------------------------------------------------------------------
rt sample --leaves "$work/leaves" --count "$leaf_count" || die "repotool sample failed"
rt build --leaves "$work/leaves" --out "$srv/tree" --stub "$stub" --client "$agent" || die "repotool build failed"
mirror update >"$work/logs/first.log" 2>&1 || die "the first mirror failed (exit $?):"$'\n'"$(tail -20 "$work/logs/first.log")"

# pick N LIST... — N names spread evenly over the list
pick() {
  local n=$1 i
  shift
  for ((i = 0; i < n; ++i)); do echo "${@:$((1 + i * $# / n)):1}"; done
}
# The leaves with a package, in the tree's order. A third of them, spread over the tree, become
# complete, but no more than twice the number the server's changes touch: the rest would only
# lengthen the start.
several=$((leaf_count / 25 > 3 ? leaf_count / 25 : 3))
mapfile -t packaged < <(unzip -p "$srv/tree/versionAll.exe" versionAll.txt | tr -d '\r' | awk -F'\t' '!/^#/ && $5 != "L" { print $1 }')
link=$(unzip -p "$srv/tree/versionAll.exe" versionAll.txt | tr -d '\r' | awk -F'\t' '!/^#/ && $5 == "L" { print $1; exit }')
n_complete=$((${#packaged[@]} / 3 < 2 * (several + 2) ? ${#packaged[@]} / 3 : 2 * (several + 2)))
mapfile -t complete < <(pick "$n_complete" "${packaged[@]}")
info_only=()
for leaf in "${packaged[@]}"; do
  [[ " ${complete[*]} " == *" $leaf "* ]] || info_only+=("$leaf")
done
for leaf in "${complete[@]}"; do
  mirror download "$leaf" >"$work/logs/download.log" 2>&1 ||
    die "download of $leaf failed (exit $?):"$'\n'"$(tail -20 "$work/logs/download.log")"
  # The download leaves the marker "the package's files are not here"; the job that asks for a
  # download removes it, and so does every outside caller of the export.
  rm -f "$repo/$leaf/0"
  # The package's own versionLeaf.txt, its last entry, is the short form "<leaf> TAB <version>".
  [ "$(tr -d '\r' <"$repo/$leaf/versionLeaf.txt" | awk -F'\t' '{ print NF }')" = 2 ] ||
    die "$leaf: the download did not unpack the package"
done
[ -z "$(leftovers "$repo")" ] || die "the start state holds leftovers: $(leftovers "$repo")"
mkdir -p "$work/start"
cp -a "$repo" "$work/start/repo" && cp -a "$agent" "$work/start/agent" || die "cannot copy the start state"

# --- 2. the server moves on -----------------------------------------------------------------------
mapfile -t c_sel < <(pick $((several + 2)) "${complete[@]}")
mapfile -t i_sel < <(pick $((several + 1)) "${info_only[@]}")
changes=()
for leaf in "${c_sel[@]:0:several}" "${i_sel[@]:0:several}" ${link:+"$link"}; do
  rt bump --out "$srv/tree" --leaf "$leaf" || die "repotool bump $leaf failed"
  changes+=("bump $leaf")
done
rt withdraw --out "$srv/tree" --leaf "${c_sel[several]}" || die "repotool withdraw failed"
rt withdraw --out "$srv/tree" --leaf "${i_sel[several]}" || die "repotool withdraw failed"
rt backtrack --out "$srv/tree" --leaf "${c_sel[several + 1]}" || die "repotool backtrack failed"
changes+=("withdraw ${c_sel[several]} (complete)" "withdraw ${i_sel[several]}" "backtrack ${c_sel[several + 1]} (complete)")

# --- 3. the reference -----------------------------------------------------------------------------
restore() {
  rm -rf "$repo" "$agent" && cp -a "$work/start/repo" "$repo" && cp -a "$work/start/agent" "$agent" ||
    die "cannot restore the start state"
}
restore
t0=$(us)
mirror update >"$work/logs/reference.log" 2>&1 || die "the reference update failed (exit $?):"$'\n'"$(tail -20 "$work/logs/reference.log")"
duration=$(($(us) - t0))
manifest "$repo" >"$work/expected.manifest"
[ -z "$(leftovers "$repo")" ] || die "the reference update left: $(leftovers "$repo")"
cmp -s "$repo/versionTree.txt" "$srv/tree/versionTree.txt" || die "the reference update did not commit the server's versionTree.txt"
cmp -s "$work/start/repo/versionTree.txt" "$repo/versionTree.txt" && die "the reference update changed nothing"

echo "crash-mirror: $leaf_count leaves, ${#complete[@]} complete; the server's changes:"
printf '  %s\n' "${changes[@]}"
echo "start state and reference ready after $(seconds $(($(us) - started))) s"
echo "reference update: $(seconds "$duration") s; $kills kills, seed $seed"

# --- 4. the kills ---------------------------------------------------------------------------------
RANDOM=$seed
failed=0 hit=0 in_leaf=0 uncommitted=0
for ((k = 1; k <= kills; ++k)); do
  # The k-th kill falls at a random moment of the k-th of N equal parts of [0, T], so that even a
  # few kills spread over the whole update; 30 random bits, much finer than T / 32768.
  r=$(((RANDOM << 15) | RANDOM))
  if [ -n "$fixed_delay" ]; then
    delay=$(awk -v d="$fixed_delay" 'BEGIN { printf "%d", d * 1e6 }')
  else
    delay=$(((duration * (k - 1) + duration * r / 1073741823) / kills))
  fi
  restore
  # A session of its own makes the update the leader of a new process group (the script runs
  # without job control, so setsid does not fork): the group holds the update and every transfer
  # tool it starts.
  setsid "$nwhost" mirror --module "$module" --registry "$work/settings.reg" --server "127.0.0.1:${S[HTTP_PORT]}" \
    --path "/$remote/tree" --repository "$repo" --workdir "$agent" --tool "$tool" update >"$work/logs/killed.log" 2>&1 &
  pid=$!
  sleep "$(seconds "$delay")"
  kill -KILL -- "-$pid" 2>/dev/null
  # (the shell's own "Killed" notice is not wanted among the lines)
  { wait "$pid"; } 2>/dev/null
  status=$?
  if [ "$status" -eq 137 ]; then
    moment=killed
    hit=$((hit + 1))
  else
    moment="ended ($status)"
  fi
  # What the kill left, by kind: "bk" backup, "del" removal, "lock" file 1, "part" transfer,
  # "new" copy, "sfx" unpacked entry, "probe" write test; e.g. "bk+lock".
  left=$(leftovers "$repo" | sed -E 's#.*/##; s/.*_bk$/bk/; s/.*~del$/del/; s/^1$/lock/; s/.*\.part.*/part/;
    s/.*\.new$/new/; s/.*\.sfx~.*/sfx/; s/^checkFileAccess\..*/probe/' | sort -u | paste -sd+)
  [ -n "$left" ] && in_leaf=$((in_leaf + 1))
  committed=old
  if cmp -s "$repo/versionTree.txt" "$srv/tree/versionTree.txt"; then
    committed=new
  else
    uncommitted=$((uncommitted + 1))
  fi

  mirror update >"$work/logs/rerun.log" 2>&1
  rerun=$?
  verdict=OK
  problems=''
  [ "$rerun" -eq 0 ] || problems+="rerun exit $rerun; "
  manifest "$repo" >"$work/actual.manifest"
  if ! cmp -s "$work/expected.manifest" "$work/actual.manifest"; then
    problems+="repository differs; "
  fi
  stray=$(leftovers "$repo")
  [ -z "$stray" ] || problems+="left behind: $(tr '\n' ' ' <<<"$stray"); "
  if [ -n "$problems" ]; then
    verdict=DIFF
    failed=$((failed + 1))
  fi
  printf 'kill %3d  after %7s s  %-11s tree %s  left %-14s rerun exit %3d  %s\n' \
    "$k" "$(seconds "$delay")" "$moment" "$committed" "${left:--}" "$rerun" "$verdict"
  if [ "$verdict" = DIFF ]; then
    echo "    $problems"
    diff "$work/expected.manifest" "$work/actual.manifest" | head -20 | sed 's/^/    /'
    echo "    --- the rerun's output (last lines):"
    tail -15 "$work/logs/rerun.log" | sed 's/^/    /'
    echo "    repeat: scripts/crash-mirror.sh --leaves $leaf_count --seed $seed --kills 1 --delay $(seconds "$delay")"
    cp "$work/logs/killed.log" "$work/logs/killed-$k.log"
    cp "$work/logs/rerun.log" "$work/logs/rerun-$k.log"
  fi
done

echo "summary: $kills kills: $hit during the update ($uncommitted before its commit, $in_leaf with a leaf in flight)," \
  "$((kills - hit)) after its end; $((kills - failed)) OK, $failed DIFF; $(seconds $(($(us) - started))) s in all"
[ "$failed" -eq 0 ]
