#!/usr/bin/env bash
# The checks that need no build: formatting of the C++ sources, shellcheck on the scripts, and the
# include direction of the layers. Exit 1 with the findings when any fails.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 2

status=0

mapfile -t sources < <(git ls-files -co --exclude-standard -- '*.cpp' '*.h' | while read -r f; do [ -f "$f" ] && echo "$f"; done)
if ! clang-format --dry-run -Werror "${sources[@]}" 2>/tmp/em-lint-format.$$; then
  head -n 20 /tmp/em-lint-format.$$ >&2
  echo "lint: clang-format finds unformatted sources (run: clang-format -i FILES)" >&2
  status=1
fi
rm -f /tmp/em-lint-format.$$

mapfile -t shells < <(git ls-files -co --exclude-standard -- '*.sh' '*.bash' scripts/wine-run .ci/run |
  while read -r f; do [ -f "$f" ] && echo "$f"; done)
if ! shellcheck -x -S warning "${shells[@]}"; then
  echo "lint: shellcheck finds faults in the scripts" >&2
  status=1
fi

if ! scripts/check-includes.sh .; then
  echo "lint: an include runs against the layers" >&2
  status=1
fi

exit $status
