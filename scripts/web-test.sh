#!/usr/bin/env bash
# Runs the terminal document's browser test (web/tests) in Chromium.
# Usage: scripts/web-test.sh [--dump PATH] [preset]
# Without --dump it builds terminal_document_dump with the CMake preset (debug
# by default) and uses that; with --dump it uses the given executable as it is
# (this is how CTest runs it). Exits 77 when /usr/bin/chromium (or
# $HARBORLATTICE_CHROMIUM, when set) is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

dump=""
if [ "${1:-}" = "--dump" ]; then
  dump="${2:?--dump needs the path of terminal_document_dump}"
  shift 2
fi
preset="${1:-debug}"

chromium="${HARBORLATTICE_CHROMIUM:-/usr/bin/chromium}"
if [ ! -x "$chromium" ]; then
  echo "web-test: skipped: $chromium is missing (install Debian's chromium package)"
  exit 77
fi
if [ ! -d web/node_modules/playwright-core ] || [ ! -d web/node_modules/@xterm/xterm ]; then
  echo "web-test: web/node_modules is incomplete; run scripts/install-deps.sh" >&2
  exit 1
fi

if [ -z "$dump" ]; then
  [ -f "target/$preset/build.ninja" ] || cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" --target terminal_document_dump
  dump="target/$preset/terminal_document_dump"
fi

export TERMINAL_DOCUMENT_DUMP="$(realpath "$dump")"
export HARBORLATTICE_CHROMIUM="$chromium"
cd web
exec node --test tests/
