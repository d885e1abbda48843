#!/usr/bin/env bash
# The repository functions of the module file as outside programs call them, against a small tree
# that repotool builds and nginx serves: first through a C client that fills the settings record
# by byte offset (so every field it reads proves its place), then through nwhost mirror. Null
# pointers are refused; the connection check tells a served tree, a missing one and missing
# parameters apart and reads the protocol and the proxy fields; a tree is mirrored into an empty
# repository and found up to date the second time; a leaf's package is fetched and its binaries
# removed; leaf paths that lead out of the repository touch nothing beside it.
#
# The calls that transfer run in a working location that holds the transfer tool. The check log
# lies below TempRoot, which the test points into its own folder: natively through the registry
# file, under Wine in a private copy of the prefix (other tests share the usual one).
# shellcheck source-path=SCRIPTDIR source=script_lib.bash
source "$(dirname "$0")/script_lib.bash" "$@"

# A proxy setting of the caller would take requests around the servers under test.
unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY EM_MENDER_CA_FILE

CLIENT=${EM_EXPORTS_CLIENT:?EM_EXPORTS_CLIENT names the C client of the repository functions}
REPOTOOL=${EM_REPOTOOL:?EM_REPOTOOL names the tree builder}
STUB=${EM_SFX_STUB:?EM_SFX_STUB names the archive stub}
TOOL=${EM_FILEDOWNLOAD:?EM_FILEDOWNLOAD names the transfer tool}
[ -r "${EM_TEST_SERVERS:-}" ] || { echo "FAIL: EM_TEST_SERVERS must name the servers' servers.env" >&2; exit 1; }
declare -A S=()
while IFS='=' read -r key value; do S[$key]=$value; done <"$EM_TEST_SERVERS"

work=$(mktemp -d)
site=${S[WWW]}/mirror_exports.$$
cleanup() {
  # The private Wine prefix's server ends with this test.
  [ -n "$RUN" ] && WINEPREFIX=$work/prefix wineserver -k >/dev/null 2>&1
  rm -rf "$work" "$site" "$site.broken"
}
trap cleanup EXIT
mkdir -p "$work/temp" "$work/repo" "$work/wl" "$work/outside"

run() { if [ -n "$RUN" ]; then "$RUN" "$@"; else "$@"; fi; }
# winesc PATH — the path as the program reads it, backslashes doubled for a registry export
winesc() { local p; p=$(winpath "$1"); echo "${p//\\/\\\\}"; }

base='HKEY_LOCAL_MACHINE\SOFTWARE\Hadley Brandt\Management\Node Warden'
if [ -n "$RUN" ]; then
  shared=${WINEPREFIX:-${HOME:-/root}/.wine-em-mender}
  [ -d "$shared" ] || "$RUN" cmd /c exit >/dev/null 2>&1  # the first start makes the prefix
  cp -a "$shared" "$work/prefix" || { fail "cannot copy the Wine prefix $shared"; finish; }
  export WINEPREFIX=$work/prefix
  "$RUN" reg add "$base\\Setup" /v TempRoot /t REG_SZ /d "$(winpath "$work/temp")" /f >/dev/null 2>&1 ||
    fail "cannot write TempRoot into the private prefix"
  TOOL_NAME=FileDownLoad.exe
else
  printf 'Windows Registry Editor Version 5.00\r\n\r\n[%s\\Setup]\r\n"TempRoot"="%s"\r\n' "$base" "$(winesc "$work/temp")" \
    >"$work/settings.reg"
  export NODEWARDEN_REGISTRY=$work/settings.reg
  TOOL_NAME=FileDownLoad
fi
MODULE_ARG=$(winpath "$MODULE")
checklog=$work/temp/EM_MENDER/UM_Checknew.log
log_size() { stat -c %s "$checklog" 2>/dev/null || echo 0; }
# log_since OFFSET — what the check log gained after OFFSET bytes, without CR
log_since() { tail -c +$(($1 + 1)) "$checklog" 2>/dev/null | tr -d '\r'; }

# --- the tree: ten sample leaves, served below the document root ----------------------------
cd "$work" || exit 1
cp "$STUB" sfx.exe
run "$REPOTOOL" sample --leaves leaves --count 10 >/dev/null || fail "repotool sample failed"
run "$REPOTOOL" build --leaves leaves --out srv --stub sfx.exe --client wl >/dev/null || fail "repotool build failed"
mv srv "$site" || { fail "cannot place the tree below the document root"; finish; }
cp "$TOOL" "wl/$TOOL_NAME"
all=$(unzip -p "$site/versionAll.exe" versionAll.txt | tr -d '\r' | grep -v '^#')
# The full leaf with the most payload files in its own folder (deleteBinary removes those; what
# lies in the leaf's subfolders it leaves).
full='' most=0
while IFS=$'\t' read -r rel _ _ _ type _; do
  [ "$type" = F ] && [ -d "leaves/$rel/files" ] || continue
  n=$(find "leaves/$rel/files" -maxdepth 1 -type f | wc -l)
  [ "$n" -gt "$most" ] && full=$rel most=$n
done <<<"$all"
[ -n "$full" ] || { fail "the sample has no full leaf with payload files"; finish; }
payload=$(cd "leaves/$full/files" && find . -type f | sed 's|^\./||')
binaries=$(cd "leaves/$full/files" && find . -maxdepth 1 -type f | sed 's|^\./||')

web=127.0.0.1:${S[HTTP_PORT]}
tree=/mirror_exports.$$
repo=$(winpath "$work/repo")
wl=$work/wl

# client FUNCTION ARGS... — the C client in the working location; RESULT is the value it printed
client() {
  local out
  out=$(cd "$wl" && run "$CLIENT" "$MODULE_ARG" "$@" 2>"$work/client.err" </dev/null | tr -d '\r')
  RESULT=$(sed -En 's/^result: (-?[0-9]+)$/\1/p' <<<"$out")
  [ -n "$RESULT" ] || { RESULT=none; fail "exports_client $*: no result: $out $(cat "$work/client.err")"; }
}
expect_result() { [ "$RESULT" = "$2" ] || fail "$1: result $RESULT, expected $2"; }
expect_not() { [ "$RESULT" != "$2" ] && [ "$RESULT" != none ] || fail "$1: result $RESULT, expected another"; }
listing() { (cd "$1" && find . -printf '%p %s\n' | sort); }

# --- null pointers: -1, and nothing written ---------------------------------------------------
client updateTree --null-record --repository "$repo"
expect_result "updateTree with a null record" -1
client updateTree --server "$web" --path "$tree" --null-repository
expect_result "updateTree with a null repository" -1
client download --null-record --repository "$repo" --leaf "$full"
expect_result "download with a null record" -1
client download --server "$web" --path "$tree" --null-repository --leaf "$full"
expect_result "download with a null repository" -1
client download --server "$web" --path "$tree" --repository "$repo" --null-leaf
expect_result "download with a null component path" -1
client checkWebConnection --null-record
expect_result "checkWebConnection with a null record" -1
client deleteBinary --null-repository --leaf "$full"
expect_result "deleteBinary with a null repository" -1
client deleteBinary --repository "$repo" --null-leaf
expect_result "deleteBinary with a null component path" -1
[ -z "$(ls -A "$work/repo")" ] || fail "calls with null pointers wrote into the repository: $(ls -A "$work/repo")"

# --- checkWebConnection: the fields at their offsets ------------------------------------------
client checkWebConnection --server "$web" --path "$tree"
expect_result "checkWebConnection of a served tree" 0
client checkWebConnection --server "$web" --path "$tree/none"
expect_result "checkWebConnection of a path the server lacks (404)" 6
client checkWebConnection --server '' --path "$tree"
expect_result "checkWebConnection without a server" 1
# The protocol byte: https to the https port with the test CA (Wine checks the name: localhost).
tls=localhost:${S[HTTPS_PORT]}
EM_MENDER_CA_FILE=${S[CA_FILE]} client checkWebConnection --https --server "$tls" --path "$tree"
expect_result "checkWebConnection over https" 0
EM_MENDER_CA_FILE=${S[CA_FILE]} client checkWebConnection --server "$tls" --path "$tree"
expect_not "checkWebConnection over http to the https port" 0
# The proxy fields: the authenticating proxy lets the request through only with the user and the
# password of the record (the server named otherwise than the proxy, for Wine's WinHTTP).
named=localhost:${S[HTTP_PORT]}
via=(--proxy-mode 2 --proxy "127.0.0.1:${S[AUTH_PROXY_PORT]}")
client checkWebConnection --server "$named" --path "$tree" "${via[@]}" --proxy-user "${S[PROXY_USER]}" \
  --proxy-password "${S[PROXY_PASSWORD]}"
expect_result "checkWebConnection through the authenticating proxy" 0
client checkWebConnection --server "$named" --path "$tree" "${via[@]}" --proxy-user "${S[PROXY_USER]}" \
  --proxy-password "wrong${S[PROXY_PASSWORD]}"
expect_result "checkWebConnection through the proxy with a wrong password" 6
closed_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
client checkWebConnection --server "$named" --path "$tree" --proxy-mode 2 --proxy "127.0.0.1:$closed_port"
expect_result "checkWebConnection through a proxy that is not there" 6

# --- updateTree: the tree into an empty repository, then already up to date ------------------
before=$(log_size)
client updateTree --server "$web" --path "$tree" --repository "$repo"
expect_result "updateTree into an empty repository" 0
cmp -s "$site/versionTree.txt" "$work/repo/versionTree.txt" || fail "the repository's versionTree.txt is not the server's"
while IFS=$'\t' read -r rel _; do
  first=$(head -n1 "$work/repo/$rel/versionLeaf.txt" 2>/dev/null | tr -d '\r')
  [[ "$first" == "$rel"$'\t'* ]] || fail "$rel: no versionLeaf.txt of its own in the repository: '$first'"
done <<<"$all"
first_log=$(log_since "$before")
[ -n "$first_log" ] || fail "updateTree wrote nothing into the check log $checklog"
grep -Fq 'Updating is not necessary!' <<<"$first_log" && fail "the first update was found not necessary"
before=$(log_size)
client updateTree --server "$web" --path "$tree" --repository "$repo"
expect_result "updateTree of a repository that is up to date" 0
grep -Fq 'Updating is not necessary!' <<<"$(log_since "$before")" ||
  fail "the second update does not say it was not necessary: $(log_since "$before")"

# --- download and deleteBinary of a full leaf -------------------------------------------------
client download --server "$web" --path "$tree" --repository "$repo" --leaf "$full"
expect_result "download of $full" 0
while read -r f; do
  cmp -s "leaves/$full/files/$f" "$work/repo/$full/$f" || fail "download of $full: payload file $f missing or different"
done <<<"$payload"
client deleteBinary --repository "$repo" --leaf "$full"
expect_result "deleteBinary of $full" 0
while read -r f; do
  [ ! -e "$work/repo/$full/$f" ] || fail "deleteBinary of $full: payload file $f is still there"
done <<<"$binaries"
for f in versionLeaf.txt zt.par; do
  [ -f "$work/repo/$full/$f" ] || fail "deleteBinary of $full removed its information file $f"
done

# --- leaf paths that lead out of the repository -----------------------------------------------
printf 'beside the repository\n' >"$work/outside/keep.bin"
# A path through the leaf that climbs one level above the repository.
climb=$full
for _ in $(tr '/' ' ' <<<"$full") repo; do climb+=/..; done
around=$(listing "$work/outside")
for leaf in ../outside '..\outside' "$climb/outside"; do
  client download --server "$web" --path "$tree" --repository "$repo" --leaf "$leaf"
  expect_not "download of $leaf" 0
  client deleteBinary --repository "$repo" --leaf "$leaf"
  expect_not "deleteBinary of $leaf" 0
done
now=$(listing "$work/outside")
[ "$now" = "$around" ] && [ "$(cat "$work/outside/keep.bin")" = 'beside the repository' ] ||
  fail "leaf paths out of the repository changed what is beside it:"$'\n'"$(diff <(echo "$around") <(echo "$now"))"

# --- nwhost mirror ----------------------------------------------------------------------------
# mirror ARGS... — RC, OUT (standard output, no CR) and ERR after it
mirror() {
  RC=0
  run "$NWHOST" mirror --module "$MODULE_ARG" "$@" >"$work/out" 2>"$work/err" </dev/null || RC=$?
  OUT=$(tr -d '\r' <"$work/out")
  ERR=$(tr -d '\r' <"$work/err" | grep -v '^wine client error:' || true)
}
# expect_mirror WHAT N — the last line is "result: N" and the exit status N's low 8 bits
expect_mirror() {
  local last
  last=$(tail -n1 <<<"$OUT")
  [ "$last" = "result: $2" ] || fail "$1: last line '$last', expected 'result: $2'"$'\n'"--- stderr: $ERR"
  [ "$RC" -eq $(($2 & 255)) ] || fail "$1: exit status $RC for the result $2"
}
# expect_refused WHAT — exit status 2, no call made (no result line), a message on standard error
expect_refused() {
  [ "$RC" -eq 2 ] || fail "$1: exit status $RC, expected 2"
  grep -q '^result:' <<<"$OUT" && fail "$1: a result line although nothing should have been called: $OUT"
  [ -n "$ERR" ] || fail "$1: nothing on standard error"
}

mirror
expect_refused "no action"
mirror download
expect_refused "download without a leaf"
mirror --server "$web" --path "$tree" update
expect_refused "update without --repository"
mirror --proxy-mode 3 check-connection
expect_refused "proxy mode 3"
mirror --proxy 127.0.0.1 check-connection
expect_refused "a proxy without its port"
mirror --repository "$repo" update now
expect_refused "a word after the action"

# The tool named by --tool is copied into a working location that lacks one; nwhost makes it.
mirror --workdir "$(winpath "$work/nw1")" --tool "$(winpath "$TOOL")" --server "$web" --path "$tree" check-connection
expect_mirror "check-connection in a new working location" 0
cmp -s "$TOOL" "$work/nw1/$TOOL_NAME" || fail "the transfer tool was not copied into the working location"
mirror --workdir "$(winpath "$work/nw2")" --tool "$(winpath "$work/no-such-tool")" --server "$web" --path "$tree" \
  check-connection
expect_refused "a working location without a tool and a --tool that is not there"
expect_count "$ERR" 1
[ ! -e "$work/nw2/$TOOL_NAME" ] || fail "a tool appeared in the working location"
mirror --workdir "$(winpath "$work/nw1")" --server "$web" --path "$tree/none" check-connection
expect_mirror "check-connection of a path the server lacks" 6

# An update echoes the check log as it grows: the lines before the result are what the log
# gained. Relative paths count from where nwhost starts, not from the working location.
before=$(log_size)
mirror --workdir wl --repository repo2 --server "$web" --path "$tree" update
expect_mirror "update into an empty repository" 0
cmp -s "$site/versionTree.txt" "$work/repo2/versionTree.txt" || fail "nwhost: repo2 holds no copy of versionTree.txt"
echoed=$(sed '$d' <<<"$OUT")
[ -n "$echoed" ] || fail "nwhost update echoed no line of the check log"
[ "$echoed" = "$(log_since "$before")" ] ||
  fail "the echo is not what the check log gained:"$'\n'"$(diff <(echo "$echoed") <(log_since "$before"))"
before=$(log_size)
mirror --quiet --workdir wl --repository repo2 --server "$web" --path "$tree" update
expect_mirror "a second update" 0
[ "$OUT" = 'result: 0' ] || fail "--quiet: more than the result line: $OUT"
grep -Fq 'Updating is not necessary!' <<<"$(log_since "$before")" || fail "nwhost: the second update was not found unnecessary"

# A tree whose version cannot be read: -10, which the shell sees as 246; nothing is mirrored.
cp -a "$site" "$site.broken"
printf 'no version here\r\n' >"$site.broken/versionTree.txt"
mirror --quiet --workdir wl --repository repo3 --server "$web" --path "$tree.broken" update
expect_mirror "update of a tree without a readable version" -10
[ ! -e "$work/repo3/versionTree.txt" ] || fail "a tree without a readable version was mirrored"

repo2=$(winpath "$work/repo2")
mirror --quiet --workdir "$(winpath "$wl")" --repository "$repo2" --server "$web" --path "$tree" download "$full"
expect_mirror "download $full" 0
while read -r f; do
  cmp -s "leaves/$full/files/$f" "$work/repo2/$full/$f" || fail "nwhost download: payload file $f missing or different"
done <<<"$payload"
mirror --quiet --repository "$repo2" delete-binary "$full"
expect_mirror "delete-binary $full" 0
while read -r f; do [ ! -e "$work/repo2/$full/$f" ] || fail "nwhost delete-binary: $f is still there"; done <<<"$binaries"
[ -f "$work/repo2/$full/versionLeaf.txt" ] || fail "nwhost delete-binary removed versionLeaf.txt"
mirror --quiet --repository "$repo2" delete-binary ../outside
n=$(sed -En 's/^result: (-?[0-9]+)$/\1/p' <<<"$OUT")
if [ -z "$n" ] || [ "$n" -eq 0 ]; then
  fail "nwhost delete-binary ../outside: result '$n', expected a refusal: $OUT"
else
  expect_mirror "delete-binary ../outside" "$n"
fi
[ "$(cat "$work/outside/keep.bin" 2>/dev/null)" = 'beside the repository' ] || fail "nwhost: a file beside the repository was touched"

# --registry decides where the check log is, and the echo follows it there.
mkdir -p "$work/temp2"
printf 'Windows Registry Editor Version 5.00\r\n\r\n[%s\\Setup]\r\n"TempRoot"="%s"\r\n' "$base" "$(winesc "$work/temp2")" \
  >"$work/other.reg"
NODEWARDEN_REGISTRY='' mirror --registry "$(winpath "$work/other.reg")" --workdir "$(winpath "$wl")" --server "$web" \
  --path "$tree" check-connection
expect_mirror "check-connection with the TempRoot of --registry" 0
other=$work/temp2/EM_MENDER/UM_Checknew.log
if [ ! -s "$other" ]; then
  fail "no check log below the TempRoot of --registry"
else
  [ "$(sed '$d' <<<"$OUT")" = "$(tr -d '\r' <"$other")" ] || fail "the echo is not the check log below --registry's TempRoot: $OUT"
fi

finish
