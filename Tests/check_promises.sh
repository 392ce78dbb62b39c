#!/bin/sh
# Every test that the security page names must exist.
# Usage: check_promises.sh PAGE TEST_SOURCE...
set -eu
page=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
grep -oE '`[A-Z][A-Za-z]+\.[A-Z][A-Za-z0-9]+`' "$page" | tr -d '`' | grep -v '\.h$' | sort -u >"$work/named"
sed -nE 's/^TEST(_F|_P)?\(([A-Za-z]+), ([A-Za-z0-9]+)\).*/\2.\3/p' "$@" | sort -u >"$work/there"
[ -s "$work/named" ] || { echo "FAILED: $page names no test"; exit 1; }
if comm -23 "$work/named" "$work/there" | grep .; then
    echo "FAILED: $page names the tests above, which do not exist"
    exit 1
fi
echo "ok: the $(wc -l <"$work/named") tests that $page names exist"
