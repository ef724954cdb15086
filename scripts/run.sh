#!/usr/bin/env bash
# Builds Harborlattice and starts it. Until the application window is built,
# this starts the terminal node, the per-user daemon that holds the shells.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset debug >/dev/null
cmake --build --preset debug
if [ -x target/debug/harborlattice ]; then
  exec target/debug/harborlattice "$@"
fi
target/debug/harborlattice-node </dev/null >/dev/null 2>&1 &
sleep 0.3
socket="${HARBORLATTICE_SOCKET:-${XDG_DATA_HOME:-$HOME/.local/share}/Harborlattice/node.sock}"
echo "harborlattice-node is listening on $socket"
