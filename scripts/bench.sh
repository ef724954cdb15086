#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs them; each prints its figures
# beside a reference measured in the same run.
# Usage: scripts/bench.sh [preferences|node|terminal|app|sync|all]   (default all)
set -euo pipefail
cd "$(dirname "$0")/.."
which="${1:-all}"
scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target preferences_bench node_bench terminal_flood_bench app_bench sync_bench
case "$which" in
  preferences|all) target/release/preferences_bench 200 3 ;;
esac
case "$which" in
  node|all) target/release/node_bench all ;;
esac
case "$which" in
  terminal|all) target/release/terminal_flood_bench ;;
esac
case "$which" in
  app|all) target/release/app_bench all ;;
esac
case "$which" in
  sync|all) target/release/sync_bench 50 ;;
esac
