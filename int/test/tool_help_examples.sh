#!/bin/sh
# Every command of the tool answers --help with an example, and the example runs; an unknown
# command is bad usage (2), a bad input is bad input (1).
set -u
tool=$1
cd "$(dirname "$0")/../.." || exit 1  # the examples name files of the source tree
for command in errno utf8 base64 base32 hex time duration datetime uuid hash; do
  help=$("$tool" "$command" --help) || { echo "$command --help failed"; exit 1; }
  example=$(printf '%s\n' "$help" | sed -n '/^Example:/{n;p;}' | sed "s#tqcore #\"$tool\" #g")
  [ -n "$example" ] || { echo "$command --help has no example"; exit 1; }
  sh -c "$example" >/dev/null || { echo "example of $command failed: $example"; exit 1; }
done
"$tool" nosuchcommand 2>/dev/null; [ $? -eq 2 ] || { echo "unknown command is not 2"; exit 1; }
"$tool" datetime 2000-01-01T12:00:00+1 2>/dev/null; [ $? -eq 1 ] || { echo "bad input is not 1"; exit 1; }
echo "every command's help and example work"
