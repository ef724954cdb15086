#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz", clang) and runs every executable
# named fuzz_* in target/fuzz for the given number of seconds each, one after
# the other, on its corpus in fuzz/corpus/<target>/ (committed seeds; what a run
# adds goes to target/fuzz/corpus/<target>/, outside the source tree) and with
# the dictionary fuzz/<target>.dict where there is one.
# Prints executions and findings per target; exits non-zero on any finding.
# Usage: scripts/fuzz.sh [seconds]   (default 20)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-20}"
mkdir -p target
if ! { cmake --preset fuzz && cmake --build --preset fuzz; } >target/fuzz-build.log 2>&1; then
  tail -30 target/fuzz-build.log >&2
  echo "fuzz: building the fuzz preset failed (log: target/fuzz-build.log)" >&2
  exit 1
fi

found=0
shopt -s nullglob
targets=(target/fuzz/fuzz_*)
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz: no fuzz_* targets in target/fuzz" >&2
  exit 1
fi
for binary in "${targets[@]}"; do
  [ -f "$binary" ] && [ -x "$binary" ] || continue
  name=$(basename "$binary")
  seeds="fuzz/corpus/$name"
  work="target/fuzz/corpus/$name"
  artifacts="target/fuzz/findings/$name"
  rm -rf "$artifacts"
  mkdir -p "$work" "$artifacts" target/fuzz/logs
  log="target/fuzz/logs/$name.log"
  corpora=("$work")
  [ -d "$seeds" ] && corpora+=("$seeds")
  options=()
  [ -f "fuzz/$name.dict" ] && options+=(-dict="fuzz/$name.dict")
  set +e
  "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$artifacts/" "${options[@]}" "${corpora[@]}" >"$log" 2>&1
  status=$?
  set -e
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' | tail -1)
  findings=$(find "$artifacts" -type f | wc -l)
  if [ "$status" -ne 0 ] || [ "$findings" -ne 0 ]; then
    found=1
    echo "fuzz: $name: ${runs:-?} executions in ${seconds} s, FINDING (status $status; log $log; inputs in $artifacts)"
    grep -m5 -E 'ERROR|SUMMARY|deadly signal' "$log" || true
  else
    echo "fuzz: $name: ${runs:-?} executions in ${seconds} s, no findings"
  fi
done
exit "$found"
