#!/usr/bin/env bash
# Builds the Debian packages libtqcore0, libtqcore-dev and tqcore-tools into build/package/packages.
# With --check, also checks them: contents, control fields, lintian, and a consumer project and
# the examples built and run against the packages unpacked into a throw-away root.
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-packages.sh package
scripts/quietly.sh cmake -S . -B build/package -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr -DTQCORE_WERROR=ON -DTQCORE_BUILD_TESTS=OFF -DTQCORE_BUILD_BENCH=OFF
scripts/quietly.sh cmake --build build/package -j 2
rm -rf build/package/packages
(cd build/package && ../../scripts/quietly.sh cpack)
ls build/package/packages/*.deb
if [[ "${1:-}" == "--check" ]]; then
  scripts/check-packages.sh build/package/packages
fi
