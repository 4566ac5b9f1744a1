#!/usr/bin/env bash
# Builds the library and the tests with --coverage, runs the suite (without the packaging
# tests, which build their own trees) and reports line and branch coverage of int/src: a
# summary here, each file in build/coverage/report.txt, and pages in build/coverage/html.
set -euo pipefail
cd "$(dirname "$0")"
scripts/ensure-packages.sh coverage
scripts/quietly.sh cmake --preset coverage
scripts/quietly.sh cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
# A failing test still leaves its figures; report them, then fail.
status=0
scripts/quietly.sh ctest --preset coverage || status=$?
mkdir -p build/coverage/html
# Branches the compiler adds for exceptions it may throw are not the code's own decisions.
gcovr --root . --filter 'int/src/' --object-directory build/coverage \
  --exclude-throw-branches --exclude-unreachable-branches \
  --txt build/coverage/report.txt --html-details build/coverage/html/index.html \
  --print-summary
exit "$status"
