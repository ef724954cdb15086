#!/usr/bin/env bash
# Fails when a tracked C++ file differs from what clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files --cached --others --exclude-standard -- '*.cpp' '*.h' | grep -v -E '(^|/)(node_modules|target)/')
[ ${#files[@]} -eq 0 ] && exit 0
clang-format --dry-run --Werror "${files[@]}"
echo "clang-format: ${#files[@]} files clean"
