#!/bin/sh
# Every command of the tool answers --help with an example, and the example runs; an unknown
# command is bad usage (2), a bad input is bad input (1); --json gives one JSON object.
set -u
tool=$1
cd "$(dirname "$0")/../.." || exit 1  # the examples name files of the source tree
for command in errno utf8 base64 base32 hex time duration datetime uuid hash stack cpu info; do
  help=$("$tool" "$command" --help) || { echo "$command --help failed"; exit 1; }
  example=$(printf '%s\n' "$help" | sed -n '/^Example:/{n;p;}' | sed "s#tqcore #\"$tool\" #g")
  [ -n "$example" ] || { echo "$command --help has no example"; exit 1; }
  sh -c "$example" >/dev/null || { echo "example of $command failed: $example"; exit 1; }
done
# The crash example crashes: it ends with SIGABRT, having reported and dumped.
"$tool" crash --help | grep -q '^Example:' || { echo "crash --help has no example"; exit 1; }
# A sanitizer reports the division itself, before the processor faults: nothing to see there.
if ldd "$tool" | grep -q -e libasan -e libtsan -e libubsan; then
  echo "crash example skipped: the tool is built with a sanitizer"
else
  traces=$(mktemp -d)
  TQTQ_TRACE_ROOT=$traces "$tool" crash fpe 2>"$traces/report"; status=$?
  [ $status -eq 134 ] || { echo "crash fpe ended with $status"; exit 1; }
  grep -q 'Fault "Integer divide-by-zero"' "$traces/report" || { echo "crash fpe: no report"; exit 1; }
  ls "$traces"/*/tqcore_*.dmp >/dev/null || { echo "crash fpe: no dump"; exit 1; }
  rm -rf "$traces"
fi
"$tool" nosuchcommand 2>/dev/null; [ $? -eq 2 ] || { echo "unknown command is not 2"; exit 1; }
"$tool" datetime 2000-01-01T12:00:00+1 2>/dev/null; [ $? -eq 1 ] || { echo "bad input is not 1"; exit 1; }
# Machine-readable output: one JSON object a line, with the fields a script reads.
json=$("$tool" uuid inspect --json 00000000-0000-C000-8000-004294967295)
case "$json" in
  '{"uuid": "00000000-0000-c000-8000-004294967295", "version": 12,'*'"legacy_id": 4294967295,'*'"unresolved": true}') ;;
  *) echo "uuid inspect --json: $json"; exit 1 ;;
esac
json=$("$tool" time --json 2000-01-01T12:00:00.5)
[ "$json" = '{"text": "2000-01-01 12:00:00.5", "iso8601": "2000-01-01T12:00:00.5Z", "nanoseconds": 946728000500000000, "julian_date": 2451545.000005787}' ] ||
  { echo "time --json: $json"; exit 1; }
json=$("$tool" info --json)
case "$json" in
  '{"host": "'*'"logical_cpus": '*'"process_priority": "'*'"}') ;;
  *) echo "info --json: $json"; exit 1 ;;
esac
json=$("$tool" cpu --json)
case "$json" in
  '{"vendor": "'*'"features": "'*'"}') ;;
  *) echo "cpu --json: $json"; exit 1 ;;
esac
echo "every command's help and example work, and --json is JSON"
