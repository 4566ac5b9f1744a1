#!/usr/bin/env bash
# Runs a command silently; if it fails, prints what it said and fails with it.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
"$@" >"$log" 2>&1 || status=$?
if [ "$status" -ne 0 ]; then
  cat "$log" >&2
fi
exit "$status"
