#!/usr/bin/env bash
# Builds the release preset and prints each benchmark beside its peer, with the ratio.
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-packages.sh bench
cmake --preset release -DTQCORE_BUILD_BENCH=ON >/dev/null
cmake --build --preset release --target tqcore_bench >/dev/null
exec build/release/int/bench/tqcore_bench "$@"
