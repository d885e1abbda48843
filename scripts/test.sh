#!/usr/bin/env bash
# Lints the tree (format, shell scripts, include direction), builds everything and runs every test:
# natively (debug, with AddressSanitizer and UBSan), the Windows cross build under Wine, and the
# ThreadSanitizer build. The debug and Windows builds come first, since some tests compare what
# the two platforms write. The fuzz targets' committed corpora are replayed as tests of their own.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
scripts/lint.sh

cmake --preset debug >/dev/null
cmake --build --preset debug
cmake --preset windows >/dev/null
cmake --build --preset windows

ctest --preset debug
ctest --preset windows

cmake --preset tsan >/dev/null
cmake --build --preset tsan
ctest --preset tsan
