#!/usr/bin/env bash
# Format and tidy: clang-format must leave every source as it is, the library must build with
# clang without a warning, and clang-tidy must find nothing in it (it reads clang's build).
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -- '*.h' '*.cpp' | xargs clang-format --dry-run -Werror
CXX=clang++ scripts/quietly.sh cmake -S . -B build/clang -G Ninja -DTQCORE_WERROR=ON \
  -DTQCORE_BUILD_TESTS=OFF -DTQCORE_BUILD_BENCH=OFF -DTQCORE_BUILD_TOOLS=OFF
scripts/quietly.sh cmake --build build/clang -j 2
command -v run-clang-tidy >/dev/null || { echo "run-clang-tidy not found" >&2; exit 1; }
log=$(mktemp)
trap 'rm -f "$log"' EXIT
run-clang-tidy -p build/clang -j 2 -quiet "$PWD/int/src/.*" >"$log" 2>&1 || true
if grep -qE '(warning|error):' "$log"; then
  grep -E '(warning|error):' "$log" | sed -E 's/\x1b\[[0-9;]*m//g' >&2
  exit 1
fi
