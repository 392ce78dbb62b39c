#!/bin/sh
# Holds the README's example to the one that is compiled: the code in README.md stands, line for line, in the example.
# Usage: check_readme.sh README EXAMPLE
set -eu
code=$(mktemp)
trap 'rm -f "$code"' EXIT
sed -n '/^```c$/,/^```$/p' "$1" | grep -v '^```' >"$code"
[ -s "$code" ] || { echo "FAILED: $1 shows no C code"; exit 1; }
if grep -vxFf "$2" "$code"; then
    echo "FAILED: the lines above stand in $1 but not in $2"
    exit 1
fi
echo "ok: the README shows what is compiled"
