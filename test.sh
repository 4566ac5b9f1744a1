#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-packages.sh test
cmake --preset debug -DTQCORE_BUILD_TESTS=ON >/dev/null
cmake --build --preset debug >/dev/null
ctest --preset debug
