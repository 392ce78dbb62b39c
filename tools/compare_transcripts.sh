#!/usr/bin/env bash
# Fails unless the tests wrote the same transcripts in every build: calls, replies and log lines, letter for letter.
#
# Usage: tools/compare_transcripts.sh FOLDER FOLDER...
#   FOLDER  what SHOTMENTOR_TRANSCRIPTS named when the tests ran
set -euo pipefail
[ $# -ge 2 ] || { echo "usage: tools/compare_transcripts.sh FOLDER FOLDER..." >&2; exit 2; }

first=$1
conversations=$(find "$first" -type f | wc -l)
[ "$conversations" -gt 0 ] || { echo "FAILED: $first holds no transcript" >&2; exit 1; }
for other in "${@:2}"; do
    if ! differences=$(diff -r "$first" "$other"); then
        head -n 20 <<<"$differences"
        echo "FAILED: the transcripts in $other are not those in $first" >&2
        exit 1
    fi
done
echo "ok: the transcripts of $conversations tests ($(cat "$first"/* | wc -l) lines) are the same in $# builds"
