#!/usr/bin/env bash
# Event-log entries reach a real receiver of the system's log.
#
# Native: a private rsyslogd (its own socket, output files and pid file) takes the entries that
# the unit-test program writes through UM_Util::umEventLogWrite, the module's one way to the
# event log; the lines must read "Tessaly Node Warden[pid]: EM_MENDER: Tessaly Update
# Management: <text>" with the facility daemon and the severity of each entry.
#
# Wine: Wine 8 keeps no event log. Its ReportEventW prints the call (fixme:advapi) and the string
# on the debug channel "eventlog" at the entry's level (trace for information, warn for warning,
# err for error), and ReadEventLogW reads nothing back; so the check reads that debug output. The
# loaded module's registration of its source shows there as well.
source "$(dirname "$0")/script_lib.bash" "$@"

bindir=$(dirname "$NWHOST")
work=$(mktemp -d)
rspid=""
cleanup() {
  if [ -n "$rspid" ]; then
    kill "$rspid" 2>/dev/null
    wait "$rspid" 2>/dev/null
  fi
  rm -rf "$work"
}
trap cleanup EXIT

text="probe-$$-$RANDOM"
unit_filter=(--gtest_filter=EventLogProbe.* --gtest_also_run_disabled_tests)
prefix='EM_MENDER: Tessaly Update Management: '

# wait_for CONDITION... — polls for up to ten seconds
wait_for() {
  for _ in $(seq 100); do
    "$@" && return 0
    sleep 0.1
  done
  return 1
}

if [ -z "$RUN" ]; then
  rsyslogd=$(command -v rsyslogd || echo /usr/sbin/rsyslogd)
  if [ ! -x "$rsyslogd" ]; then
    fail "rsyslogd not found (package rsyslog; scripts/install-deps.sh installs it)"
    finish
  fi
  cat >"$work/rsyslog.conf" <<EOF
global(workDirectory="$work")
module(load="imuxsock" SysSock.Use="off")
input(type="imuxsock" Socket="$work/log.sock")
template(name="fields" type="string" string="%syslogfacility-text%.%syslogseverity-text% %msg%\n")
*.* action(type="omfile" file="$work/fields" template="fields")
*.* action(type="omfile" file="$work/messages" template="RSYSLOG_TraditionalFileFormat")
EOF
  "$rsyslogd" -n -f "$work/rsyslog.conf" -i "$work/rsyslogd.pid" >"$work/rsyslogd.out" 2>&1 &
  rspid=$!
  wait_for test -S "$work/log.sock" || fail "rsyslogd did not open its socket: $(cat "$work/rsyslogd.out")"

  # Non-ASCII text must arrive as UTF-8.
  text="$text grüße"
  NODEWARDEN_SYSLOG_SOCKET=$work/log.sock EM_EVENTLOG_PROBE_TEXT=$text \
    "$bindir/em_unit_tests" "${unit_filter[@]}" >"$work/unit.out" 2>&1 ||
    fail "the probe failed:"$'\n'"$(cat "$work/unit.out")"
  grep -q '\[  PASSED  \] 1 test' "$work/unit.out" || fail "the probe did not run:"$'\n'"$(cat "$work/unit.out")"

  have_all() { [ "$(grep -c -F "$text" "$work/messages" 2>/dev/null)" -ge 4 ]; }
  wait_for have_all || fail "rsyslogd wrote fewer than four entries:"$'\n'"$(cat "$work/messages" 2>/dev/null)"
  messages=$(cat "$work/messages" 2>/dev/null)
  fields=$(cat "$work/fields" 2>/dev/null)
  line='^[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [^ ]+ Tessaly Node Warden\[[0-9]+\]: '
  for entry in "information" "warning" "error"; do
    grep -Eq -- "$line${prefix}${text} ${entry}\$" <<<"$messages" || fail "no '$entry' line as designed"$'\n'"$messages"
  done
  grep -Eq -- "$line""EM_MENDER: ${text} direct 42\$" <<<"$messages" || fail "no direct report line"$'\n'"$messages"
  # The severity of each entry as the receiver parsed it; the ident's blank ends the tag there,
  # so the rest of the ident opens the message.
  grep -Eq -- "^daemon\.info .*${prefix}${text} information\$" <<<"$fields" || fail "information entry not daemon.info"$'\n'"$fields"
  grep -Eq -- "^daemon\.warning .*${prefix}${text} warning\$" <<<"$fields" || fail "warning entry not daemon.warning"$'\n'"$fields"
  grep -Eq -- "^daemon\.err .*${prefix}${text} error\$" <<<"$fields" || fail "error entry not daemon.err"$'\n'"$fields"
else
  unit=$bindir/em_unit_tests.exe
  WINEDEBUG=-all,+eventlog,fixme+advapi EM_EVENTLOG_PROBE_TEXT=$text \
    "$RUN" "$unit" "${unit_filter[@]}" >"$work/unit.out" 2>"$work/wine.err" ||
    fail "the probe failed:"$'\n'"$(cat "$work/unit.out" "$work/wine.err")"
  grep -q '\[  PASSED  \] 1 test' "$work/unit.out" || fail "the probe did not run:"$'\n'"$(cat "$work/unit.out")"
  debug=$(tr -d '\r' <"$work/wine.err")
  expect_debug() { grep -Eq -- "$1" <<<"$debug" || fail "no debug line matching $1"$'\n'"--- Wine's output was:"$'\n'"$debug"; }
  expect_debug ':fixme:advapi:RegisterEventSourceW \(\(null\),L"Tessaly Node Warden"\)'
  # type, category 0, identifier 0x40000000, no user, one string, no raw data
  for type in 4 2 1; do
    expect_debug ":fixme:advapi:ReportEventW \\([0-9A-F]+,0x000${type},0x0000,0x40000000,0+,0x0001,0x00000000,[0-9A-F]+,0+\\)"
  done
  expect_debug ":trace:eventlog:ReportEventW L\"${prefix}${text} information\""
  expect_debug ":warn:eventlog:ReportEventW L\"${prefix}${text} warning\""
  expect_debug ":err:eventlog:ReportEventW L\"${prefix}${text} error\""
  expect_debug ":trace:eventlog:ReportEventW L\"EM_MENDER: ${text} direct 42\""
  expect_debug ':fixme:advapi:DeregisterEventSource \([0-9A-F]+\)'

  # The loaded module registers its source at start, under the host type's name, and removes it
  # when it is unloaded.
  out=$(WINEDEBUG=-all,fixme+advapi host <<<'{"op":"request","OC":13105}' 2>"$work/host.err")
  expect_line "$out" '{"op":"reply","OC":13105,"ret":1,"ST":0}'
  grep -Fq 'RegisterEventSourceW ((null),L"Tessaly Node Warden")' "$work/host.err" ||
    fail "the loaded module registered no source:"$'\n'"$(cat "$work/host.err")"
  grep -Eq 'DeregisterEventSource \([0-9A-F]+\)' "$work/host.err" ||
    fail "the unloaded module left its source:"$'\n'"$(cat "$work/host.err")"
fi

finish
