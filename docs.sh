#!/usr/bin/env bash
# Builds the reference documentation into build/docs/html from the public headers; any
# Doxygen warning fails it.
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-packages.sh docs
mkdir -p build/docs
doxygen docs/Doxyfile
echo "reference: build/docs/html/index.html"
