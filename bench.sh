#!/usr/bin/env bash
# Builds the release preset and prints each benchmark beside its peer, with the ratio.
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-packages.sh bench
scripts/quietly.sh cmake --preset release -DTQCORE_BUILD_BENCH=ON
scripts/quietly.sh cmake --build --preset release --target tqcore_bench
exec build/release/int/bench/tqcore_bench "$@"
