#!/usr/bin/env bash
# Builds everything and runs every test: natively (debug, with AddressSanitizer and UBSan) and the
# Windows cross build under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake --preset debug >/dev/null
cmake --build --preset debug
ctest --preset debug

cmake --preset windows >/dev/null
cmake --build --preset windows
ctest --preset windows
