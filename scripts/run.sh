#!/usr/bin/env bash
# Builds Harborlattice and starts it. The application starts the terminal node
# (harborlattice-node, beside it) once its window is up.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset debug >/dev/null
cmake --build --preset debug
exec target/debug/harborlattice "$@"
