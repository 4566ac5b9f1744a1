#!/usr/bin/env bash
# Runs the stress tests under ThreadSanitizer for SECONDS each (default 60): keys interned and
# dropped, futures signalled, cancelled and awaited, sequential UUIDs, random fills, trace
# handlers swapped while other threads trace. The test suite runs them for a second each.
# Usage: ./stress.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-packages.sh test
scripts/quietly.sh cmake --preset tsan
scripts/quietly.sh cmake --build --preset tsan --target tqcore_stress_test
TQCORE_STRESS_SECONDS=${1:-60} TSAN_OPTIONS=halt_on_error=1 build/tsan/int/test/tqcore_stress_test \
  --gtest_brief=1
