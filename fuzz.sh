#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer)
# and runs each for SECONDS (default 60), starting from its corpus in int/fuzz/corpus. Inputs
# that reach new code collect in build/fuzz/found/TARGET; a broken oracle, crash or leak stops
# that target, leaves the input in build/fuzz/findings/TARGET and fails the run. Keep such an
# input in the corpus once it is fixed: the test build replays the corpus.
# Usage: ./fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")"
seconds=${1:-60}
[ $# -gt 0 ] && shift
scripts/ensure-packages.sh fuzz
scripts/quietly.sh cmake --preset fuzz
scripts/quietly.sh cmake --build --preset fuzz

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for corpus in int/fuzz/corpus/*/; do targets+=("$(basename "$corpus")"); done
fi
# Debian's ACE frees with free() what it allocated with new[] in its exit processing.
export ASAN_OPTIONS=alloc_dealloc_mismatch=0:detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1
status=0
for target in "${targets[@]}"; do
  found=build/fuzz/found/$target findings=build/fuzz/findings/$target log=build/fuzz/logs/$target.log
  mkdir -p "$found" "$findings" build/fuzz/logs
  if build/fuzz/int/fuzz/fuzz_"$target" -max_total_time="$seconds" -max_len=4096 -timeout=10 \
       -print_final_stats=1 -artifact_prefix="$findings/" "$found" "int/fuzz/corpus/$target" \
       >"$log" 2>&1; then
    runs=$(awk '/stat::number_of_executed_units/ {print $2}' "$log")
    coverage=$(grep -o 'cov: [0-9]*' "$log" | tail -1)
    printf '%-16s %12s runs in %ss, %s, no finding\n' "$target" "$runs" "$seconds" "$coverage"
  else
    printf '%-16s FINDING (log: %s, input in %s)\n' "$target" "$log" "$findings" >&2
    grep -A 30 -E 'broken:|ERROR: |runtime error' "$log" | head -40 >&2 || tail -40 "$log" >&2
    status=1
  fi
done
exit "$status"
