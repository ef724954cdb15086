#!/usr/bin/env bash
# Builds Harborlattice and runs every test. Usage: scripts/test.sh [preset]
# where preset is debug (the default), sanitize (AddressSanitizer and
# UndefinedBehaviorSanitizer) or tsan (ThreadSanitizer). Extra arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-debug}"
shift || true
scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset" -j2 "$@"
