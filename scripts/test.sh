#!/usr/bin/env bash
# Lints the tree (format, shell scripts, include direction), builds everything and runs every test:
# natively (debug, with AddressSanitizer and UBSan, two tests at a time), the Windows cross build
# under Wine, and the ThreadSanitizer build of the threaded parts. The debug and Windows builds
# come first, since some tests compare what the two platforms write. The fuzz targets' committed corpora are replayed as tests of their own.
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

# The ThreadSanitizer run covers what runs threads: the unit tests, the loaded module and the
# scripted host tests that start checks; it builds only what those need.
cmake --preset tsan >/dev/null
cmake --build --preset tsan --target em_unit_tests em_integration_tests nwhost FileDownLoad
ctest --preset tsan
