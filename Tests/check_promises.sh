#!/bin/sh
# Every promise of the security page must name a test and a fuzzer, and whatever it names must exist.
# Usage: check_promises.sh PAGE PROJECT_FOLDER
set -eu
page=$1 project=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() {
    echo "FAILED: $1"
    failed=1
}

grep -oE '`[A-Z][A-Za-z]+\.([A-Z][A-Za-z0-9]+|test_[a-z0-9_]+)`' "$page" | tr -d '`' | grep -v '\.h$' |
    sort -u >"$work/named"
{
    sed -nE 's/^TEST(_F|_P)?\(([A-Za-z]+), ([A-Za-z0-9]+)\).*/\2.\3/p' \
        "$project"/Tests/*.cpp "$project"/Tests/Desk/*.cpp
    awk '/^class / { split($2, words, /[(:]/); name = words[1] }
        /^    def test_/ { split($2, words, "("); print name "." words[1] }' "$project"/Tests/Desk/test_*.py \
        "$project"/Air/test_*.py
} | sort -u >"$work/there"
! comm -23 "$work/named" "$work/there" | grep . || fail "$page names the tests above, which do not exist"

grep -oE '`(Fuzz|tools|\.)/[A-Za-z_/]+(\.[a-z]+)?[ `]' "$page" | tr -d '` ' | sort -u >"$work/files"
while read -r file; do
    [ -e "$project/$file" ] || fail "$page names $file, which does not exist"
done <"$work/files"

# A promise begins with its number and ends with the line of its fuzzers.
awk '/^[0-9]+\. \*\*/ { ++promises; tests = 0 }
    /`[A-Z][A-Za-z]+\.([A-Z]|test_)/ { tests = 1 }
    /^ +Fuzzers: `/ && tests { ++held; tests = 0 }
    END { print promises + 0, held + 0 }' "$page" >"$work/promises"
read -r promises held <"$work/promises"
if [ "$promises" -eq 0 ] || [ "$promises" -ne "$held" ]; then
    fail "$held of $promises promises name a test and a fuzzer"
fi

[ "$failed" -eq 0 ] || exit 1
echo "ok: $promises promises, $(wc -l <"$work/named") tests and $(wc -l <"$work/files") files that $page names"
