#!/usr/bin/env bash
# Whole-process comparison: one load and walk of a generated 10 MB document of 100,000 elements
# by XmlDocument (xml_bench --load-walk) against `xmllint --noout` on the same file, alternating,
# in the same run. Prints the median wall times and their ratio.
#
#   bench/xml_vs_xmllint.sh [XML_BENCH_BINARY] [RUNS]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
bin=${1:-}
runs=${2:-15}
if [ -z "$bin" ]; then
  (cd "$root" && cmake --preset release >/dev/null && cmake --build --preset release --target xml_bench >/dev/null)
  bin=$root/build/release/bench/xml_bench
fi
command -v xmllint >/dev/null || { echo "xmllint missing (apt-get install libxml2-utils)" >&2; exit 2; }
file=$(mktemp --suffix=.xml)
trap 'rm -f "$file"' EXIT
"$bin" --generate "$file"

ms() {  # runs a command once and prints its wall time in milliseconds
  local start end
  start=$(date +%s%N)
  "$@" >/dev/null
  end=$(date +%s%N)
  echo $(((end - start) / 1000))
}
median() { sort -n | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }

"$bin" --load-walk "$file" >/dev/null
xmllint --noout "$file"
ours=() lint=()
for ((i = 0; i < runs; ++i)); do
  ours+=("$(ms "$bin" --load-walk "$file")")
  lint+=("$(ms xmllint --noout "$file")")
done
o=$(printf '%s\n' "${ours[@]}" | median)
l=$(printf '%s\n' "${lint[@]}" | median)
echo "file: $(stat -c %s "$file") bytes, $("$bin" --load-walk "$file")"
echo "XmlDocument load+walk: median $((o / 1000)).$(printf '%03d' $((o % 1000))) ms over $runs runs"
echo "xmllint --noout:       median $((l / 1000)).$(printf '%03d' $((l % 1000))) ms over $runs runs"
awk -v o="$o" -v l="$l" 'BEGIN { printf "ratio XmlDocument/xmllint: %.2f (below 1 is faster)\n", o / l }'
