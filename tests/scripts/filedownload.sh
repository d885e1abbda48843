#!/usr/bin/env bash
# The transfer tool against the test servers, natively and (with the Windows build) under Wine:
# byte-exact files over http and https, the proxies, and every failure the mirror must tell apart
# by the exit code, with one line on standard error and no file left behind.
#
# Under Wine two of Wine's own limits shape the cases (docs/filedownload.md): its certificate
# check matches a host name only against the DNS names of a certificate, so https goes to
# "localhost"; and its WinHTTP sends a request to the proxy in the origin form when the proxy's
# and the server's host names are equal, so proxied requests name the server "localhost" and
# the proxy 127.0.0.1.
# shellcheck source-path=SCRIPTDIR source=script_lib.bash
source "$(dirname "$0")/script_lib.bash" "$@"

# A proxy setting of the caller would take requests around the servers under test.
unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY EM_MENDER_CA_FILE

if [ ! -r "${EM_TEST_SERVERS:-}" ] || [ ! -e "${EM_FILEDOWNLOAD:-}" ]; then
  echo "FAIL: EM_TEST_SERVERS and EM_FILEDOWNLOAD must name the servers' servers.env and the tool" >&2
  exit 1
fi
declare -A S=()
while IFS='=' read -r key value; do S[$key]=$value; done <"$EM_TEST_SERVERS"

work=$(mktemp -d)
site=${S[WWW]}/filedownload.$$
trap 'rm -rf "$work" "$site"' EXIT
mkdir -p "$work/dl" "$site/sub dir"
# The folder of the local files as the tool reads it (winepath starts Wine: once).
if [ -n "$RUN" ]; then dl=$(winpath "$work/dl")'\'; else dl=$work/dl/; fi
remote=filedownload.$$

# A port where nothing listens: bound once by the system's choice, then closed.
closed_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

# fdl ARGS... — runs the tool; RC, OUT (standard output) and ERR (standard error, no CR) after it
VERBOSE=''
fdl() {
  RC=0
  if [ -n "$RUN" ]; then
    "$RUN" "$EM_FILEDOWNLOAD" "$@" >"$work/out" 2>"$work/err" </dev/null || RC=$?
  else
    "$EM_FILEDOWNLOAD" "$@" >"$work/out" 2>"$work/err" </dev/null || RC=$?
  fi
  OUT=$(tr -d '\r' <"$work/out")
  # Wine's own complaints when other programs in the shared prefix restart its server are not
  # the tool's output.
  ERR=$(tr -d '\r' <"$work/err" | grep -v '^wine client error:' || true)
}

# get ARGS... — the module's own command line: every option present, empty values quoted
get() {
  local m='' i='' x='' c='' e=() v=()
  VERBOSE=''
  while [ $# -gt 0 ]; do
    case $1 in
      -m) m=$2; shift 2 ;; -i) i=$2; shift 2 ;; -x) x=$2; shift 2 ;; -c) c=$2; shift 2 ;;
      -e) e=(-e); shift ;; -v) v=(-v -d); VERBOSE=1; shift ;;
      *) break ;;
    esac
  done
  fdl -m "$m" -i "$i" -x "$x" -c "$c" -s "$1" -r "$2" -l "$dl$3" "${v[@]}" "${e[@]}"
}

expect_rc() { [ "$RC" -eq "$1" ] || fail "$2: exit code $RC, expected $1"$'\n'"--- stderr: $ERR"; }

# expect_done WHAT SOURCE LOCAL — exit 0, nothing on standard error (nor on standard output
# without -v -d), the file equal to the source
expect_done() {
  expect_rc 0 "$1"
  [ -z "$ERR" ] || fail "$1: standard error not empty: $ERR"
  [ -n "$VERBOSE" ] || [ -z "$OUT" ] || fail "$1: output without -v -d: $OUT"
  cmp -s "$2" "$work/dl/$3" || fail "$1: $3 differs from the source"
}

# expect_failed WHAT CODE PATTERN — the exit code, and one line on standard error that matches
expect_failed() {
  expect_rc "$2" "$1"
  expect_count "$ERR" 1
  grep -Eq -- "^FileDownLoad: $3" <<<"$ERR" || fail "$1: the error line does not match $3: $ERR"
}

# expect_clean WHAT — no temporary file left in the download folder
expect_clean() {
  local left
  left=$(find "$work/dl" -name '*.part*')
  [ -z "$left" ] || fail "$1: temporary file left: $left"
}

# The sources: binary content with CR, LF, CR LF and NUL bytes, in a folder and under a name
# with blanks and the characters that a URL must encode ("%", "#", "+", ";").
printf 'line\r\nbare\rfeed\n\000\000nul\377\376end' >"$site/sub dir/bin ary.dat"
head -c 300000 /dev/urandom >>"$site/sub dir/bin ary.dat"
printf 'odd name' >"$site/sub dir/100% #1 +x;y.txt"
printf 'new content\n' >"$site/new.txt"
printf 'verbose\n' >"$site/v.txt"
utf8_remote=$'gr\303\274\303\237e \303\274.txt' utf8_local=$'\303\234bung.txt'
printf 'gruesse\n' >"$site/sub dir/$utf8_remote"
bin="$site/sub dir/bin ary.dat"
web=127.0.0.1:${S[HTTP_PORT]}

# --- the command line -------------------------------------------------------------------------
fdl --help
expect_rc 0 "--help"
grep -q '^Usage: FileDownLoad' <<<"$OUT" || fail "--help prints no usage on standard output: $OUT"
[ -z "$ERR" ] || fail "--help writes to standard error: $ERR"
fdl -s "$web" -r x -l "${dl}x" -q
expect_rc 2 "unknown option"
grep -q '^Usage: FileDownLoad' <<<"$ERR" || fail "unknown option: no usage on standard error: $ERR"
fdl -s "$web" -r x
expect_rc 2 "missing -l"
for help in -h '/?'; do
  fdl "$help"
  grep -q '^Usage: FileDownLoad' <<<"$OUT" || fail "$help prints no usage on standard output: $OUT"
done
fdl -s "$web" -r x -l "${dl}x" -c SOMETIMES
expect_rc 2 "unknown proxy mode"
fdl -s "$web" -r x -l "${dl}x" -c USER_DEFINED_PROXY -x ''
expect_rc 2 "USER_DEFINED_PROXY without -x"
fdl -s "$web" -r '' -l "${dl}x"
expect_rc 2 "empty -r"
fdl -s "$web" -r x -l
expect_rc 2 "-l without its value"
for server in 127.0.0.1:0 127.0.0.1:65536 127.0.0.1:8x "user@127.0.0.1" "127.0.0.1/x" "[::1" "[::1]x"; do
  fdl -s "$server" -r x -l "${dl}x"
  expect_rc 2 "server $server"
done
expect_clean "usage errors"
[ -z "$(ls "$work/dl")" ] || fail "usage errors made files: $(ls "$work/dl")"
# An IPv6 server is taken (nothing listens there, or the address is missing: no usage error).
fdl -s "[::1]:$closed_port" -r x -l "${dl}x"
expect_rc 1 "IPv6 server"

# --- http -------------------------------------------------------------------------------------
# The remote path with backslashes and without a leading slash, as the module passes it.
get "$web" "$remote\\sub dir\\bin ary.dat" "bin ary.dat"
expect_done "http, binary file" "$bin" "bin ary.dat"
get "$web" "/$remote/sub dir/100% #1 +x;y.txt" "odd.txt"
expect_done "http, a name with characters a URL encodes" "$site/sub dir/100% #1 +x;y.txt" "odd.txt"
# UTF-8 in the remote and the local name (under Wine the command line reaches the program's
# wide entry point through the UTF-8 locale).
LC_ALL=C.UTF-8 get "$web" "$remote/sub dir/$utf8_remote" "$utf8_local"
expect_done "http, UTF-8 names" "$site/sub dir/$utf8_remote" "$utf8_local"
# A body that comes in pieces with pauses between them (1 KB each, 5 ms apart).
head -c 5000 /dev/zero | tr '\0' x | sed 's/x/0123456789/g' | head -c 5000 >"$work/slow.expected"
get "127.0.0.1:${S[FAULT_PORT]}" "slow/5000/5/x" "slow.txt"
expect_done "http, a body in pieces" "$work/slow.expected" "slow.txt"
# lower case proxy mode, NO_PROXY given credentials: straight to the server
get -c no_proxy -m "${S[PROXY_USER]}" -i "${S[PROXY_PASSWORD]}" "$web" "$remote/new.txt" "nop.txt"
expect_done "no_proxy with credentials" "$site/new.txt" "nop.txt"
# An existing local file is replaced by a complete transfer.
printf 'old content\n' >"$work/dl/keep.txt"
get "$web" "$remote/new.txt" "keep.txt"
expect_done "http, over an existing file" "$site/new.txt" "keep.txt"
expect_clean "http"

# -v -d: what, status, size on standard output; the proxy password never.
get -m "${S[PROXY_USER]}" -i "${S[PROXY_PASSWORD]}" -x "127.0.0.1:${S[AUTH_PROXY_PORT]}" -c USER_DEFINED_PROXY -v \
  "localhost:${S[HTTP_PORT]}" "$remote/v.txt" "v.txt"
expect_done "verbose" "$site/v.txt" "v.txt"
grep -q "http://localhost:${S[HTTP_PORT]}/$remote/v.txt" <<<"$OUT" || fail "verbose: no URL: $OUT"
grep -q "HTTP status 200, 8 bytes" <<<"$OUT" || fail "verbose: no status and size: $OUT"
if grep -qF -- "${S[PROXY_PASSWORD]}" "$work/out" "$work/err"; then fail "verbose: the proxy password is shown: $OUT"; fi

# --- failures: the code, one line, no file, an existing file untouched -------------------------
printf 'previous\n' >"$work/dl/prev.txt"
get "$web" "$remote/missing.txt" "prev.txt"
expect_failed "404" 3 "http://$web/$remote/missing.txt: HTTP status 404$"
[ "$(cat "$work/dl/prev.txt")" = previous ] || fail "404: the existing local file was changed"
get "$web" "$remote/missing.txt" "none.txt"
[ ! -e "$work/dl/none.txt" ] || fail "404: a local file was made"
get "127.0.0.1:${S[FAULT_PORT]}" "status/500/x" "none.txt"
expect_failed "status 500" 3 ".*HTTP status 500$"
get "127.0.0.1:$closed_port" "$remote/new.txt" "none.txt"
expect_failed "refused connection" 1 "http://127.0.0.1:$closed_port/.*: cannot connect"
get "127.0.0.1:${S[FAULT_PORT]}" "reset/x" "prev.txt"
expect_failed "reset" 1 ".*connection broken"
get "127.0.0.1:${S[FAULT_PORT]}" "short/20000/x" "prev.txt"
expect_failed "short body" 1 ".*short body: 10000 of 20000 bytes"
[ "$(cat "$work/dl/prev.txt")" = previous ] || fail "reset or short body: the existing local file was changed"
[ ! -e "$work/dl/none.txt" ] || fail "a failed transfer made a local file"
expect_clean "failures"
get "$web" "$remote/sub dir" "none.txt"
expect_failed "a redirect (a folder without its slash)" 3 ".*HTTP status 301 \(redirects are not followed\)"
[ ! -e "$work/dl/none.txt" ] || fail "a redirect made a local file"
get "$web" "$remote/new.txt" "no such folder/x.txt"
expect_failed "local folder missing" 4 ".*cannot create"
# A folder in the local file's place: the complete file cannot take its name.
mkdir "$work/dl/folder.txt"
get "$web" "$remote/new.txt" "folder.txt"
expect_failed "local name taken by a folder" 4 ".*cannot rename"
[ -d "$work/dl/folder.txt" ] || fail "local name taken by a folder: the folder is gone"
expect_clean "local file failures"

# --- https ------------------------------------------------------------------------------------
tls=localhost:${S[HTTPS_PORT]}
export EM_MENDER_CA_FILE=${S[CA_FILE]}
get -e "$tls" "$remote/sub dir/bin ary.dat" "tls.dat"
expect_done "https with the test CA" "$bin" "tls.dat"
if [ -z "$RUN" ]; then
  get -e "127.0.0.1:${S[HTTPS_PORT]}" "$remote/new.txt" "tls-ip.txt"
  expect_done "https to an address with the test CA" "$site/new.txt" "tls-ip.txt"
fi
# Another CA does not vouch for the server, nor does the system's store alone.
openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/other.key" -out "$work/other.pem" -days 2 \
  -subj "/CN=another test CA" >/dev/null 2>&1 || fail "openssl cannot make a CA"
EM_MENDER_CA_FILE=$work/other.pem get -e "$tls" "$remote/new.txt" "tls-other.txt"
expect_failed "https with another CA" 1 "https://$tls/.*TLS failure"
printf 'no certificate here\n' >"$work/empty.pem"
EM_MENDER_CA_FILE=$work/empty.pem get -e "$tls" "$remote/new.txt" "tls-other.txt"
expect_failed "https with a CA file without certificates" 1 "https://$tls/.*TLS failure"
unset EM_MENDER_CA_FILE
get -e "$tls" "$remote/new.txt" "tls-none.txt"
expect_failed "https without EM_MENDER_CA_FILE" 1 "https://$tls/.*TLS failure"
[ ! -e "$work/dl/tls-other.txt" ] && [ ! -e "$work/dl/tls-none.txt" ] || fail "https: an untrusted server's file was kept"
expect_clean "https"

# --- proxies ----------------------------------------------------------------------------------
named=localhost:${S[HTTP_PORT]}
get -c USER_DEFINED_PROXY -x "127.0.0.1:${S[PROXY_PORT]}" "$named" "$remote/sub dir/bin ary.dat" "proxy.dat"
expect_done "the open proxy" "$bin" "proxy.dat"
# The proxy is really asked: one that is not there fails the transfer.
get -c USER_DEFINED_PROXY -x "127.0.0.1:$closed_port" "$named" "$remote/new.txt" "none.txt"
expect_failed "a proxy that is not there" 1 ".*cannot connect"
get -c USER_DEFINED_PROXY -x "127.0.0.1:${S[AUTH_PROXY_PORT]}" -m "${S[PROXY_USER]}" -i "${S[PROXY_PASSWORD]}" \
  "$named" "$remote/sub dir/bin ary.dat" "auth.dat"
expect_done "the authenticating proxy with credentials" "$bin" "auth.dat"
get -c USER_DEFINED_PROXY -x "127.0.0.1:${S[AUTH_PROXY_PORT]}" "$named" "$remote/new.txt" "none.txt"
expect_failed "the authenticating proxy without credentials" 3 ".*HTTP status 407"
get -c USER_DEFINED_PROXY -x "127.0.0.1:${S[AUTH_PROXY_PORT]}" -m "${S[PROXY_USER]}" -i "wrong ${S[PROXY_PASSWORD]}" \
  "$named" "$remote/new.txt" "none.txt"
expect_failed "the authenticating proxy with a wrong password" 3 ".*HTTP status 40[17]"

if [ -z "$RUN" ]; then
  # https through the proxy's tunnel (Wine's WinHTTP does not answer a 407 to CONNECT).
  EM_MENDER_CA_FILE=${S[CA_FILE]} get -e -c USER_DEFINED_PROXY -x "127.0.0.1:${S[AUTH_PROXY_PORT]}" \
    -m "${S[PROXY_USER]}" -i "${S[PROXY_PASSWORD]}" "$tls" "$remote/new.txt" "tunnel.txt"
  expect_done "https through the authenticating proxy" "$site/new.txt" "tunnel.txt"
  EM_MENDER_CA_FILE=${S[CA_FILE]} get -e -c USER_DEFINED_PROXY -x "127.0.0.1:${S[AUTH_PROXY_PORT]}" \
    "$tls" "$remote/new.txt" "none.txt"
  expect_failed "https through the authenticating proxy without credentials" 3 ".*HTTP status 407"

  # PREDEFINED: the environment's proxy; NO_PROXY ignores it.
  http_proxy=http://127.0.0.1:${S[PROXY_PORT]} get -c PREDEFINED "$named" "$remote/new.txt" "env.txt"
  expect_done "PREDEFINED with http_proxy" "$site/new.txt" "env.txt"
  http_proxy=http://127.0.0.1:$closed_port get -c PREDEFINED "$named" "$remote/new.txt" "none.txt"
  expect_failed "PREDEFINED with a proxy that is not there" 1 ".*cannot connect"
  http_proxy=http://127.0.0.1:${S[AUTH_PROXY_PORT]} get -c PREDEFINED -m "${S[PROXY_USER]}" \
    -i "${S[PROXY_PASSWORD]}" "$named" "$remote/new.txt" "env-auth.txt"
  expect_done "PREDEFINED with credentials" "$site/new.txt" "env-auth.txt"
  EM_MENDER_CA_FILE=${S[CA_FILE]} https_proxy=http://127.0.0.1:${S[PROXY_PORT]} get -e -c PREDEFINED \
    "$tls" "$remote/new.txt" "env-tls.txt"
  expect_done "PREDEFINED with https_proxy" "$site/new.txt" "env-tls.txt"
  EM_MENDER_CA_FILE=${S[CA_FILE]} https_proxy=http://127.0.0.1:$closed_port get -e -c PREDEFINED \
    "$tls" "$remote/new.txt" "none.txt"
  expect_failed "PREDEFINED with an https_proxy that is not there" 1 ".*cannot connect"
  http_proxy=http://127.0.0.1:$closed_port get -c NO_PROXY "$named" "$remote/new.txt" "direct.txt"
  expect_done "NO_PROXY beside http_proxy" "$site/new.txt" "direct.txt"
  [ ! -e "$work/dl/none.txt" ] || fail "a failed proxied transfer made a local file"

  # A transfer killed midway leaves nothing under the final name (the module kills a tool that
  # runs too long): 64 KB served in 1 KB pieces 20 ms apart, killed once the first bytes are in.
  "$EM_FILEDOWNLOAD" -s "127.0.0.1:${S[FAULT_PORT]}" -r slow/65536/20/x -l "$work/dl/killed.bin" 2>/dev/null &
  pid=$!
  for _ in $(seq 200); do
    [ -s "$work/dl/killed.bin.part$pid" ] && break
    sleep 0.01
  done
  [ -s "$work/dl/killed.bin.part$pid" ] || fail "killed transfer: no temporary file beside the local file"
  kill -KILL "$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  [ ! -e "$work/dl/killed.bin" ] || fail "killed transfer: a partial file under the final name"
  rm -f "$work/dl/killed.bin.part$pid"
fi
expect_clean "proxies"

finish
