#!/usr/bin/env bash
# Installs what is missing, builds, and runs the tqcore command-line tool with ARGS; without
# any, `tqcore info`.
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-packages.sh build
scripts/quietly.sh cmake --preset release -DTQCORE_BUILD_TESTS=OFF -DTQCORE_BUILD_BENCH=OFF
scripts/quietly.sh cmake --build --preset release --target tqcore_tool
[ $# -gt 0 ] || set -- info
exec build/release/int/tools/tqcore "$@"
