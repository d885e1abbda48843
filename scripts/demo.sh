#!/usr/bin/env bash
# The main job: builds the module and the host, and runs the host's demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release
exec build/release/nwhost demo "$@"
