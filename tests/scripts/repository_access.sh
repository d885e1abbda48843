#!/usr/bin/env bash
# Repository access through the loaded module: the volume handed in by its label (0x33A8), the
# settings it leaves, the search for a missing label in time-scaled rounds, the label rules, and
# the remote share tried at start.
#
# The test volume: natively a mount table and a directory of label links of the test's own
# (EM_MENDER_MOUNTINFO, EM_MENDER_DISK_BY_LABEL) describing a directory as a mounted, labelled
# file system, and, where this machine allows it, a real labelled loop mount; under Wine a drive
# letter of the prefix that leads to a directory with a ".windows-label" file.
source "$(dirname "$0")/script_lib.bash" "$@"

work=$(mktemp -d)
base='HKEY_LOCAL_MACHINE\SOFTWARE\Hadley Brandt\Management\Node Warden'
debug='HKEY_LOCAL_MACHINE\SOFTWARE\Debug\EM_MENDER'
loop_dir=''
cleanup() {
  # The private Wine prefix's server ends with this test.
  [ -n "$RUN" ] && WINEPREFIX=$work/prefix wineserver -k >/dev/null 2>&1
  [ -n "$loop_dir" ] && umount "$loop_dir" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$work/data" "$work/bin" "$work/vol" "$work/by-label"

# Wine lists the volumes of the drives that exist when its mount manager starts, and reads a
# drive's label then: a drive added while other programs run in the shared prefix stays unknown.
# The test runs in a private copy of the prefix, with its test drive in place before Wine starts.
if [ -n "$RUN" ]; then
  shared=${WINEPREFIX:-${HOME:-/root}/.wine-em-mender}
  [ -d "$shared" ] || "$RUN" cmd /c exit >/dev/null 2>&1  # the first start makes the prefix
  cp -a "$shared" "$work/prefix" || { fail "cannot copy the Wine prefix $shared"; finish; }
  export WINEPREFIX=$work/prefix
  printf 'WS2012R2SE\n' >"$work/vol/.windows-label"
  ln -s "$work/vol" "$WINEPREFIX/dosdevices/q:"
fi

# Every wait of the module takes a thousandth of its time: the three 2-second rounds, 6 ms.
export EM_MENDER_TIME_SCALE=1000

esc() { local p; p=$(winpath "$1"); echo "${p//\\/\\\\}"; }
printf 'Windows Registry Editor Version 5.00\r\n\r\n[%s\\DATA]\r\n"DataRoot"="%s"\r\n\r\n[%s\\Setup]\r\n"BinRoot"="%s"\r\n\r\n[%s]\r\n"FileDebugLevel"=dword:00000005\r\n"TraceFile"="%s"\r\n' \
  "$base" "$(esc "$work/data")" "$base" "$(esc "$work/bin")" "$debug" "$(esc "$work/trace.log")" >"$work/settings.reg"
settings=$(winpath "$work/settings.reg")
trace() { iconv -f UTF-16 -t UTF-8 "$work/trace.log" | tr -d '\r'; }

# The volume labelled as the controller's default label.
if [ -n "$RUN" ]; then
  volume_json='Q:\\zentrove'
else
  export EM_MENDER_MOUNTINFO=$work/mountinfo EM_MENDER_DISK_BY_LABEL=$work/by-label
  printf '22 27 0:21 / /proc rw - proc proc rw\n27 1 254:0 / / rw - ext4 /dev/em-script-root rw\n' >"$work/mountinfo"
  printf '41 27 7:70 / %s rw - ext4 /dev/em-script-volume rw\n' "$work/vol" >>"$work/mountinfo"
  ln -s /dev/em-script-volume "$work/by-label/WS2012R2SE"
  volume_json="$work/vol/zentrove"
fi

# No data: the default label, found; the repository is the volume's directory, read-only volume
# access (3). The label rules for bytes refuse without searching.
raw128=$(printf '65,%.0s' $(seq 127))0
out=$(host --registry "$settings" <<SCRIPT
{"op":"request","OC":13224,"CA":0}
{"op":"request","OC":57345,"OE":6720,"CA":0}
{"op":"request","OC":57345,"OE":6721,"CA":0}
{"op":"request","OC":13224,"CA":0,"DA":{"RAW":[$raw128]}}
{"op":"request","OC":13224,"CA":0,"DA":{"RAW":[65,66,67]}}
SCRIPT
)
expect_line "$out" '{"op":"reply","OC":13224,"ret":1,"ST":0,"DA":"zentrove"}'
expect_line "$out" "{\"op\":\"reply\",\"OC\":57345,\"ret\":1,\"ST\":0,\"DA\":\"$volume_json\"}"
expect_line "$out" '{"op":"reply","OC":57345,"ret":1,"ST":0,"DA":3}'
[ "$(grep -Fxc '{"op":"reply","OC":13224,"ret":1,"ST":6,"DA":"no label"}' <<<"$out")" -eq 2 ] ||
  fail "byte streams of 128 bytes or without a terminator are not refused: $out"
text=$(trace)
grep -Fq "CM_UmSetRepositoryAccessqLTX, len=0 label 'WS2012R2SE'" <<<"$text" ||
  fail "no search for the default label in the trace"
grep -Fq 'wrong parameter, no label' <<<"$text" || fail "no trace of the refused labels"

# A label that no volume has: three rounds, then "Can't find volume"; nothing changes.
rm -f "$work/trace.log"
start=$(date +%s%N)
out=$(host --registry "$settings" <<'SCRIPT'
{"op":"request","OC":13224,"CA":0,"DA":"EM-NO-SUCH-VOLUME"}
{"op":"request","OC":57345,"OE":6721,"CA":0}
SCRIPT
)
elapsed_ms=$((($(date +%s%N) - start) / 1000000))
expect_line "$out" "{\"op\":\"reply\",\"OC\":13224,\"ret\":1,\"ST\":6,\"DA\":\"Can't find volume\"}"
expect_line "$out" '{"op":"reply","OC":57345,"ret":1,"ST":0,"DA":3}'
text=$(trace)
for n in 1 2 3; do
  grep -Fq "not found - loopCnt=$n => Sleep for 2 secs ..." <<<"$text" || fail "round $n missing from the trace"
done
grep -Fq 'not found - loopCnt=4' <<<"$text" && fail "more than three rounds"
# Unscaled, the rounds alone take six seconds.
[ "$elapsed_ms" -lt 5000 ] || fail "the search took ${elapsed_ms} ms: the time scale does not reach its waits"

# A remote share is tried when the module starts with access mode 2: a missing one fails (-1).
rm -f "$work/trace.log"
out=$(host --registry "$settings" <<SCRIPT
{"op":"request","OC":57346,"OE":6720,"CA":0,"DA":"$(esc "$work/no-share")"}
{"op":"request","OC":57346,"OE":6721,"CA":0,"DA":2}
{"op":"restart"}
{"op":"request","OC":57345,"OE":6721,"CA":0}
SCRIPT
)
expect_line "$out" '{"op":"reply","OC":57345,"ret":1,"ST":0,"DA":2}'
text=$(trace)
grep -Eq 'UM_Config::uncConnect\(\)	: END error [0-9]+, ret -1' <<<"$text" ||
  fail "the start did not try the share: $(grep -F uncConnect <<<"$text")"

# A real labelled file system, where this machine lets the test mount one.
if [ -z "$RUN" ]; then
  label=EMQ$$
  why=''
  if [ "$(id -u)" -ne 0 ]; then
    why='not root'
  elif ! command -v mkfs.ext4 >/dev/null; then
    why='no mkfs.ext4'
  else
    truncate -s 8M "$work/volume.img" && mkfs.ext4 -q -L "$label" "$work/volume.img" 2>"$work/mkfs.err" ||
      why="mkfs.ext4 failed: $(cat "$work/mkfs.err")"
    if [ -z "$why" ]; then
      mkdir -p "$work/loop"
      if mount -o loop "$work/volume.img" "$work/loop" 2>"$work/mount.err"; then
        loop_dir=$work/loop
      else
        why="mounting is not allowed here: $(cat "$work/mount.err")"
      fi
    fi
  fi
  if [ -n "$why" ]; then
    echo "SKIP real loop volume: $why"
  else
    unset EM_MENDER_MOUNTINFO
    # Without udev (containers) nobody makes the label link; the test makes it as udev would.
    if [ -e "/dev/disk/by-label/$label" ]; then
      unset EM_MENDER_DISK_BY_LABEL
    else
      device=$(awk -v d="$loop_dir" '$5 == d { for (i = 7; $i != "-"; i++); print $(i + 2) }' /proc/self/mountinfo | tail -1)
      mkdir -p "$work/by-label-real"
      ln -s "$device" "$work/by-label-real/$label"
      export EM_MENDER_DISK_BY_LABEL=$work/by-label-real
    fi
    out=$(host --registry "$settings" <<SCRIPT
{"op":"request","OC":13224,"CA":0,"DA":"$label"}
{"op":"request","OC":57345,"OE":6720,"CA":0}
SCRIPT
    )
    expect_line "$out" '{"op":"reply","OC":13224,"ret":1,"ST":0,"DA":"zentrove"}'
    expect_line "$out" "{\"op\":\"reply\",\"OC\":57345,\"ret\":1,\"ST\":0,\"DA\":\"$loop_dir/zentrove\"}"
  fi
fi

finish
