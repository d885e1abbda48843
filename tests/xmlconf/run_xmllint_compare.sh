#!/usr/bin/env bash
# Compares the well-formedness verdict of XmlDocument with `xmllint --noout` over every .xml, .xsl
# and .svg file under /usr/share (the files that the installed Debian packages ship, and the ones
# generated there at install time), plus damaged copies of the package files.
#
#   tests/xmlconf/run_xmllint_compare.sh [OUTDIR]
#
# Environment: XMLCONF_DRIVER (a built xmlconf_driver; default: built with the release preset),
# XMLCONF_DAMAGED (number of damaged copies, default 3000), XMLCONF_SEED (default 20240).
# Writes OUTDIR/summary.txt (also printed) and OUTDIR/disagreements.tsv
# (file, ours, xmllint, dtd-dependent, reason, xmllint's first error, our error text).
set -euo pipefail
export LC_ALL=C

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
out=${1:-$root/build/xmlconf}
damaged=${XMLCONF_DAMAGED:-3000}
seed=${XMLCONF_SEED:-20240}
mkdir -p "$out"
command -v xmllint >/dev/null || { echo "xmllint missing (apt-get install libxml2-utils)" >&2; exit 2; }

driver=${XMLCONF_DRIVER:-}
if [ -z "$driver" ]; then
  (cd "$root" && cmake --preset release >/dev/null && cmake --build --preset release --target xmlconf_driver >/dev/null)
  driver=$root/build/release/bench/xmlconf_driver
fi

# The corpus: package files (from dpkg's file lists) and everything else under /usr/share.
cat /var/lib/dpkg/info/*.list 2>/dev/null | grep -E '^/usr/share/.*\.(xml|xsl|svg)$' | sort -u |
  while IFS= read -r f; do [ -f "$f" ] && printf '%s\n' "$f"; done >"$out/package_files.txt" || true
find /usr/share -type f \( -name '*.xml' -o -name '*.xsl' -o -name '*.svg' \) 2>/dev/null | sort >"$out/all_files.txt"
rm -rf "$out/damaged" && mkdir -p "$out/damaged"
"$driver" damage "$out/damaged" "$seed" "$damaged" <"$out/package_files.txt" >"$out/damaged.tsv"
cut -f1 "$out/damaged.tsv" >"$out/damaged_files.txt"

# xmllint's verdict: path TAB 1|0 TAB first error message.
lint() {
  local f=$1 err
  if err=$(xmllint --noout "$f" 2>&1 >/dev/null); then
    printf '%s\t1\t\n' "$f"
  else
    err=$(printf '%s\n' "$err" | grep -m1 -oE '(parser |namespace )?error : .*' | sed 's/^.*error : //' | tr '\t' ' ')
    printf '%s\t0\t%s\n' "$f" "$err"
  fi
}
export -f lint

# Why the two verdicts differ, from xmllint's first message.
reason_of() {
  awk -F'\t' '
    function reason(msg) {
      if (msg ~ /EntityRef|Entity .* not defined/) return "reference"
      if (msg ~ /String not (closed|started)|AttValue|attribute name|expected .=.|mandates value|attributes construct|end of Start Tag|redefined|Unescaped .<. not allowed in attributes|Couldn.t find end of Start Tag/) return "attribute"
      if (msg ~ /Start tag expected|Extra content at the end/) return "outside-root"
      if (msg ~ /XML declaration|Malformed declaration|Blank needed|encoding name|ParsePI|PI .* never end|xmlParsePI|XML decl/) return "declaration-or-pi"
      if (msg ~ /hyphen within comment|Comment not terminated/) return "comment-content"
      if (msg ~ /UTF-8|Char 0x|invalid Char|PCDATA invalid|not proper/) return "character"
      if (msg ~ /[Nn]amespace|xmlns/) return "namespace"
      if (msg ~ /\]\]>/) return "cdata-end-in-text"
      return "other"
    }
    { r = ($2 == 1 && $3 == 0) ? reason($6) : ($2 == 0 && $3 == 1 ? "stricter-than-xmllint" : "agree");
      print $1 "\t" $2 "\t" $3 "\t" $4 "\t" r "\t" $6 "\t" $5 }'
}

compare() {  # list-file label
  local list=$1 label=$2
  "$driver" verdict <"$list" >"$out/$label.ours.tsv"
  xargs -d '\n' -P "$(nproc)" -I{} bash -c 'lint "$1"' _ {} <"$list" | sort >"$out/$label.lint.tsv"
  sort "$out/$label.ours.tsv" >"$out/$label.ours.sorted.tsv"
  # file ours lint dtd ourError lintError
  join -t $'\t' -j1 <(cut -f1,2,3,5 "$out/$label.ours.sorted.tsv") <(cut -f1-3 "$out/$label.lint.tsv") |
    awk -F'\t' '{ print $1 "\t" $2 "\t" $5 "\t" $3 "\t" $4 "\t" $6 }' | reason_of >"$out/$label.result.tsv"
  local total dtd comparable agree
  total=$(wc -l <"$out/$label.result.tsv")
  dtd=$(awk -F'\t' '$4 == 1' "$out/$label.result.tsv" | wc -l)
  comparable=$((total - dtd))
  agree=$(awk -F'\t' '$4 == 0 && $5 == "agree"' "$out/$label.result.tsv" | wc -l)
  echo "$label: $total files, $dtd with DTD-dependent content; of the other $comparable: $agree agree, $((comparable - agree)) disagree"
  awk -F'\t' '$4 == 0 && $5 != "agree" { n[$5]++ } END { for (r in n) printf "  %-22s %d\n", r, n[r] }' \
    "$out/$label.result.tsv" | sort
  awk -F'\t' '$4 == 1 { n[$5]++ } END { for (r in n) printf "  (DTD-dependent) %-22s %d\n", r, n[r] }' \
    "$out/$label.result.tsv" | sort
  awk -F'\t' -v l="$label" '$5 != "agree" { print l "\t" $0 }' "$out/$label.result.tsv" >>"$out/disagreements.tsv"
}

: >"$out/disagreements.tsv"
{
  echo "xmllint: $(xmllint --version 2>&1 | head -1)"
  compare "$out/package_files.txt" package
  compare "$out/all_files.txt" all_usr_share
  compare "$out/damaged_files.txt" damaged
  echo "damaged copies by kind (agree/total):"
  join -t $'\t' -j1 <(sort "$out/damaged.tsv") <(sort "$out/damaged.result.tsv") |
    awk -F'\t' '{ t[$2]++; if ($6 == "agree") a[$2]++ } END { for (k in t) printf "  %-16s %d/%d\n", k, a[k], t[k] }' | sort
} | tee "$out/summary.txt"
