#!/usr/bin/env bash
# Static checks of the library and tools: cppcheck and clang-tidy (default
# checks plus the project's .clang-tidy). Uses the compile database of
# BUILD_DIR (default build), minus g++-only flags clang does not know.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}
[ -f "$build_dir/compile_commands.json" ] || cmake -S . -B "$build_dir" >/dev/null
db=$(mktemp -d)
trap 'rm -rf "$db"' EXIT
sed 's/ -fno-gnu-unique//g' "$build_dir/compile_commands.json" >"$db/compile_commands.json"

mapfile -t files < <(git ls-files 'src/*.cpp' 'tools/*.cpp')
cppcheck --quiet --inline-suppr --error-exitcode=1 --enable=warning,performance,portability \
  --std=c++17 -Iinclude -Isrc "${files[@]}"
clang-tidy --quiet -p "$db" "${files[@]}" 2>/dev/null | grep -E 'warning:|error:' && exit 1
echo "lint: clean"
