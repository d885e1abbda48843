#!/usr/bin/env bash
# The test servers answer as the mirror's tests rely on: nginx over http and https, both proxies,
# every path of the fault server; and servers.py, in a state directory of its own, replaces, stops
# and fails as it must. The servers and curl run natively in both builds: no run prefix.
# shellcheck source-path=SCRIPTDIR source=script_lib.bash
source "$(dirname "$0")/script_lib.bash" "${1:-}" "${2:-}" ""

# A proxy or no_proxy setting of the caller would send requests around the servers under test.
unset http_proxy https_proxy all_proxy no_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY NO_PROXY

if [ ! -r "${EM_TEST_SERVERS:-}" ]; then
  echo "FAIL: EM_TEST_SERVERS names no servers.env (start them: python3 tests/support/servers.py up --state DIR)" >&2
  exit 1
fi

declare -A ENV=()
while IFS='=' read -r key value; do
  ENV[$key]=$value
done <"$EM_TEST_SERVERS"

# expect_eq ACTUAL EXPECTED WHAT
expect_eq() {
  [ "$1" = "$2" ] || fail "$3: got '$1', expected '$2'"
}

# curl_rc CURL-ARGS... — curl's exit code, its output dropped
curl_rc() {
  curl -s --max-time 5 -o /dev/null "$@"
  echo $?
}

# servers.env: exactly these keys, values without quotes (the tests parse it without a shell)
expect_eq "$(cut -d= -f1 "$EM_TEST_SERVERS" | sort | tr '\n' ' ')" \
  "AUTH_PROXY_PORT CA_FILE FAULT_PORT HTTPS_PORT HTTP_PORT PROXY_PASSWORD PROXY_PORT PROXY_USER WWW " "keys of servers.env"
if grep -q "[\"']" "$EM_TEST_SERVERS"; then fail "servers.env has quotes"; fi
for key in HTTP_PORT HTTPS_PORT PROXY_PORT AUTH_PROXY_PORT FAULT_PORT; do
  [[ ${ENV[$key]:-} =~ ^[0-9]+$ ]] || fail "$key is no port: '${ENV[$key]:-}'"
done

HTTP="http://127.0.0.1:${ENV[HTTP_PORT]}"
HTTPS="https://127.0.0.1:${ENV[HTTPS_PORT]}"
FAULT="http://127.0.0.1:${ENV[FAULT_PORT]}"
PROXY="http://127.0.0.1:${ENV[PROXY_PORT]}"
AUTH_PROXY="http://127.0.0.1:${ENV[AUTH_PROXY_PORT]}"
CREDENTIALS="${ENV[PROXY_USER]}:${ENV[PROXY_PASSWORD]}"
CA=${ENV[CA_FILE]}
TAG="selftest-$$-$RANDOM" # keeps the fault server's counters of earlier runs apart

dir="${ENV[WWW]}/servers_selftest"
rm -rf "$dir"
mkdir -p "$dir"

# --- servers.py itself: replacing, stopping, failing, sparing strangers -----------------------------
# A state directory of its own, beside the servers under test. The system's interpreter where
# there is one: a wrapper script in front of python3 (pyenv) can cost more than a start.
SERVERS_PY="$(dirname "$0")/../support/servers.py"
PY=/usr/bin/python3
[ -x "$PY" ] || PY=python3
state=$(mktemp -d)
fakebin=$(mktemp -d)
trap 'rm -rf "$dir" "$fakebin"; "$PY" "$SERVERS_PY" down --state "$state" >/dev/null 2>&1; rm -rf "$state"' EXIT

# live SESSIONS... — the processes of these sessions that still run (zombies do not count)
live() {
  local sid
  for sid in "$@"; do ps -o pid=,stat= -s "$sid" | awk '$2 !~ /^Z/ { print $1 }'; done
}
sessions() { cat "$state"/*.pid 2>/dev/null; }

# Runs beside the checks of the servers under test (it waits mostly for key generation); its exit
# status is the number of its failed checks.
lifecycle_checks() {
  FAILURES=0 # counted apart, added to the others' at the end
  "$PY" "$SERVERS_PY" up --state "$state" >/dev/null || fail "up in a fresh state directory"
  mapfile -t first < <(sessions)
  expect_eq "${#first[@]}" 4 "pid files after up"
  [ -s "$state/servers.env" ] || fail "no servers.env after up"
  [ "$(live "$(cat "$state/nginx.pid")" | wc -l)" -ge 2 ] || fail "nginx runs without a worker"

  # An up whose nginx does not start, over the servers of the first whose nginx master was killed
  # (leaving its worker behind): it says which server failed and why, and leaves nothing running,
  # neither of the first run (the worker included) nor of its own.
  kill -KILL "$(cat "$state/nginx.pid")"
  printf '#!/bin/sh\necho "nginx: [emerg] planted failure" >&2\nexit 1\n' >"$fakebin/nginx"
  chmod +x "$fakebin/nginx"
  if out=$(PATH="$fakebin:$PATH" "$PY" "$SERVERS_PY" up --state "$state" 2>&1); then
    fail "up succeeded without nginx"
  fi
  grep -q "^nginx: exited" <<<"$out" || fail "up does not say that nginx failed: $out"
  grep -q "planted failure" <<<"$out" || fail "up does not show nginx's complaint: $out"
  expect_eq "$(live "${first[@]}")" "" "processes of the first up after the second"
  expect_eq "$(pgrep -f -- "$state/" || true)" "" "processes left by a failed up"
  expect_eq "$(sessions)" "" "pid files left by a failed up"
  [ ! -e "$state/servers.env" ] || fail "servers.env after a failed up"
  "$PY" "$SERVERS_PY" down --state "$state" || fail "down when nothing runs"

  # a stale pid file naming a stranger's session (even one that reads a file of the state): it lives on
  setsid tail -f "$state/conf/nginx.conf" >/dev/null &
  stranger=$!
  echo "$stranger" >"$state/fault.pid"
  "$PY" "$SERVERS_PY" down --state "$state" || fail "down with a stale pid file"
  kill -0 "$stranger" 2>/dev/null || fail "down killed the process a stale pid file named"
  kill "$stranger" 2>/dev/null
  return "$FAILURES"
}
lifecycle_checks &
lifecycle=$!

# --- nginx over http -----------------------------------------------------------------------------
printf 'first\n' >"$dir/file.txt"
expect_eq "$(curl -sS --max-time 5 "$HTTP/servers_selftest/file.txt")" "first" "http file"
# a file rewritten in place is served with its new size at once (no cache of open files)
printf 'second and longer\n' >"$dir/file.txt"
expect_eq "$(curl -sS --max-time 5 "$HTTP/servers_selftest/file.txt")" "second and longer" "http file rewritten"
expect_eq "$(curl -s --max-time 5 -o /dev/null -w '%{http_code}' "$HTTP/servers_selftest/missing.txt")" 404 "missing file"

head -c 3000000 /dev/urandom >"$dir/random.bin"
curl -sS --max-time 5 -o "$dir/random.out" "$HTTP/servers_selftest/random.bin"
cmp -s "$dir/random.bin" "$dir/random.out" || fail "a 3 MB file arrives changed"

# beyond 4 GB: a sparse file, of which only the size and the last bytes travel
if truncate -s 5G "$dir/large.bin"; then
  headers=$(curl -sS --max-time 5 -I "$HTTP/servers_selftest/large.bin" | tr -d '\r')
  grep -qix 'content-length: 5368709120' <<<"$headers" || fail "size of a 5 GB file: $headers"
  expect_eq "$(curl -s --max-time 5 -r 5368709110- -o /dev/null -w '%{http_code} %{size_download}' \
    "$HTTP/servers_selftest/large.bin")" "206 10" "the last bytes of a 5 GB file"
else
  fail "cannot make a sparse 5 GB file in $dir"
fi

# --- nginx over https ----------------------------------------------------------------------------
expect_eq "$(curl -sS --max-time 5 --cacert "$CA" "$HTTPS/servers_selftest/file.txt")" "second and longer" "https"
expect_eq "$(curl -sS --max-time 5 --cacert "$CA" "https://localhost:${ENV[HTTPS_PORT]}/servers_selftest/file.txt")" \
  "second and longer" "https by the name localhost"
expect_eq "$(curl_rc "$HTTPS/servers_selftest/file.txt")" 60 "https without the test CA (curl's certificate error)"
expect_eq "$(curl_rc --cacert "$CA" --tlsv1.2 --tls-max 1.2 "$HTTPS/servers_selftest/file.txt")" 0 "TLS 1.2"
expect_eq "$(curl_rc --cacert "$CA" --tlsv1.3 "$HTTPS/servers_selftest/file.txt")" 0 "TLS 1.3"

# --- the proxies ---------------------------------------------------------------------------------
out=$(curl -sS --max-time 5 -i -x "$PROXY" "$HTTP/servers_selftest/file.txt" | tr -d '\r')
grep -qiE '^via: .*tinyproxy' <<<"$out" || fail "no Via header of the proxy: $out"
expect_eq "$(tail -n 1 <<<"$out")" "second and longer" "http through the proxy"
# CONNECT to a port other than 443
expect_eq "$(curl -sS --max-time 5 -x "$PROXY" --cacert "$CA" "$HTTPS/servers_selftest/file.txt")" \
  "second and longer" "https through the proxy"

expect_eq "$(curl -s --max-time 5 -o /dev/null -w '%{http_code}' -x "$AUTH_PROXY" "$HTTP/servers_selftest/file.txt")" \
  407 "auth proxy without credentials"
expect_eq "$(curl -s --max-time 5 -o /dev/null -w '%{http_connect}' -x "$AUTH_PROXY" --cacert "$CA" \
  "$HTTPS/servers_selftest/file.txt")" 407 "CONNECT through the auth proxy without credentials"
code=$(curl -s --max-time 5 -o /dev/null -w '%{http_code}' -x "$AUTH_PROXY" -U "${ENV[PROXY_USER]}:wrong" \
  "$HTTP/servers_selftest/file.txt")
[[ $code == 401 || $code == 407 ]] || fail "auth proxy with a wrong password answered $code"
expect_eq "$(curl -sS --max-time 5 -x "$AUTH_PROXY" -U "$CREDENTIALS" "$HTTP/servers_selftest/file.txt")" \
  "second and longer" "http through the auth proxy"
expect_eq "$(curl -sS --max-time 5 -x "$AUTH_PROXY" -U "$CREDENTIALS" --cacert "$CA" "$HTTPS/servers_selftest/file.txt")" \
  "second and longer" "https through the auth proxy"

# --- the fault server ----------------------------------------------------------------------------
expect_eq "$(curl -sS --max-time 5 "$FAULT/bytes/25/$TAG/a.bin")" "0123456789012345678901234" "bytes"
expect_eq "$(curl -s --max-time 5 -o /dev/null -w '%{http_code} %{size_download}' "$FAULT/bytes/0/$TAG")" "200 0" "no bytes"
headers=$(curl -sS --max-time 5 -I "$FAULT/bytes/10/$TAG/head.bin" | tr -d '\r')
grep -qix 'content-length: 10' <<<"$headers" || fail "HEAD of bytes: $headers"
expect_eq "$(curl -sS --max-time 5 "$FAULT/slow/3000/5/$TAG")" "$(curl -sS --max-time 5 "$FAULT/bytes/3000/$TAG")" \
  "slow gives the same bytes"

out=$(curl -s --max-time 5 -w '|%{http_code}' "$FAULT/status/503/$TAG/x.cab")
[[ $out == ?*"|503" ]] || fail "status 503 with a body: $out"
expect_eq "$(curl -s --max-time 5 -o /dev/null -w '%{http_code}' "$FAULT/status/204/$TAG")" 204 "status 204"
expect_eq "$(curl -s --max-time 5 -o /dev/null -w '%{http_code}' "$FAULT/status/404/$TAG")" 404 "status 404"

# the three ways to fail: a body cut short (18), a reset (56, where a plain close would be 52),
# no answer at all (28, curl's time limit)
expect_eq "$(curl -s --max-time 5 -o /dev/null -w '%{http_code} %{size_download}' "$FAULT/short/100/$TAG"; echo " $?")" \
  "200 50 18" "short"
expect_eq "$(curl_rc "$FAULT/reset/$TAG/a.bin")" 56 "reset"
expect_eq "$(curl -s --max-time 0.3 -o /dev/null "$FAULT/hang/$TAG/a.bin"; echo $?)" 28 "hang"

toggle="$FAULT/toggle/5/8/$TAG/Stop.txt"
expect_eq "$(curl -s --max-time 5 -w '%{size_download} ' -o /dev/null "$toggle" -o /dev/null "$toggle" -o /dev/null "$toggle")" \
  "5 8 5 " "toggle"
expect_eq "$(curl -sS --max-time 5 "$FAULT/count/$TAG")" 3 "count of a toggle key"
expect_eq "$(curl -sS --max-time 5 "$FAULT/count/bytes/25/$TAG/a.bin")" 1 "count of a path"
expect_eq "$(curl -sS --max-time 5 "$FAULT/count/reset/$TAG/a.bin")" 1 "count of a path answered by a reset"
expect_eq "$(curl -sS --max-time 5 "$FAULT/count/never-$TAG")" 0 "count of an unknown key"

for path in "nothing/$TAG" "bytes/many/$TAG" "slow/10" ""; do
  expect_eq "$(curl -s --max-time 5 -o /dev/null -w '%{http_code}' "$FAULT/$path")" 404 "unknown path /$path"
done

# the absolute-URI form, sent straight and through the proxy
expect_eq "$(curl -sS --max-time 5 --request-target "$FAULT/bytes/7/$TAG/abs" "$FAULT/")" "0123456" "absolute URI"
expect_eq "$(curl -sS --max-time 5 -x "$PROXY" "$FAULT/bytes/12/$TAG/proxied")" "012345678901" "fault through the proxy"
expect_eq "$(curl -sS --max-time 5 -x "$PROXY" "$FAULT/count/bytes/12/$TAG/proxied")" 1 "count through the proxy"

fault_log="$(dirname "$EM_TEST_SERVERS")/logs/fault.log"
grep -q "/toggle/5/8/$TAG/Stop.txt" "$fault_log" || fail "the toggle requests are not in $fault_log"
grep -q "reset /reset/$TAG/a.bin" "$fault_log" || fail "the reset is not in $fault_log"

wait "$lifecycle"
FAILURES=$((FAILURES + $?))
finish
