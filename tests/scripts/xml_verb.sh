#!/usr/bin/env bash
# nwhost xml: the verdict on a file as a support person sees it, for file names in any script.
source "$(dirname "$0")/script_lib.bash" "$@"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

xml() {
  if [ -n "$RUN" ]; then "$RUN" "$NWHOST" xml "$(winpath "$1")"; else "$NWHOST" xml "$1"; fi
}

# A job file under a name outside any ANSI code page, in UTF-16LE with its mark.
good="$work/Jöb ✓ списък.xml"
{ printf '\xff\xfe'; printf '<?xml version="1.0" encoding="UTF-16"?>\r\n<Jobs><Job><Name>Kr&#xFC;ger</Name></Job><Job/></Jobs>\r\n' |
  iconv -f UTF-8 -t UTF-16LE; } >"$good"
out=$(xml "$good")
rc=$?
[ $rc -eq 0 ] || fail "exit status $rc for a readable file"
# The error text of a sound file notes how it was read: the mark, the encoding and the byte count
# after the mark.
size=$(($(stat -c %s "$good") - 2))
expect_line "$out" '{"wellFormed":true,"errorText":"BOM + UTF-16LE length '"$size"'","elements":4,"roundTrip":true}'

# A broken file is still read: the verdict and the class's own text say why.
broken="$work/broken.xml"
printf '<Jobs><Job><Name>x</Job></Jobs>' >"$broken"
out=$(xml "$broken")
rc=$?
[ $rc -eq 0 ] || fail "exit status $rc for a readable broken file"
grep -Eq '^\{"wellFormed":false,"errorText":"[^"]+","elements":[0-9]+,"roundTrip":(true|false)\}$' <<<"$out" ||
  fail "broken file: $out"

# A UTF-7 file: the save keeps its markup and declaration readable, so it reads back the same.
utf7="$work/utf7.xml"
printf '<?xml version="1.0" encoding="utf-7"?>\n<r a="1">caf+AOk- x</r>\n' >"$utf7"
out=$(xml "$utf7")
expect_line "$out" '{"wellFormed":true,"errorText":"to utf-7 length 63","elements":1,"roundTrip":true}'

# A file that is not there gives no line and exit status 1.
out=$(xml "$work/missing ✗.xml" 2>/dev/null)
rc=$?
[ $rc -eq 1 ] || fail "exit status $rc for a missing file"
expect_count "$out" 0

finish
