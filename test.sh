#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-packages.sh test
scripts/quietly.sh cmake --preset debug -DTQCORE_BUILD_TESTS=ON
scripts/quietly.sh cmake --build --preset debug
ctest --preset debug
