#!/usr/bin/env bash
# Compares the defined dynamic symbols of a library with a list of expected
# ones (demangled, one a line); prints the difference and fails on any.
set -euo pipefail
library=$1
expected=$2
actual=$(nm -D --defined-only --demangle "$library" | cut -d' ' -f3- | LC_ALL=C sort)
wanted=$(grep -v '^\s*$' "$expected" | LC_ALL=C sort)
if [ "$actual" != "$wanted" ]; then
  echo "exported symbols differ from $expected (< expected, > exported):"
  diff <(echo "$wanted") <(echo "$actual") || true
  exit 1
fi
echo "$(echo "$actual" | wc -l) exported symbols, as expected"
