#!/bin/sh
# Keeps the library's functions small: cyclomatic complexity at most 10, median length at most 12 lines.
# Usage: check_complexity.sh SOURCE...
set -eu
pmccabe "$@" | sort -k5n | awk '
    { lines[NR] = $5 }
    $2 > 10 { print "FAILED: complexity " $2 ": " $6 " " $7; failed = 1 }
    END {
        median = lines[int((NR + 1) / 2)]
        print NR " functions, median " median " lines, longest " lines[NR]
        if (NR == 0 || median > 12) { print "FAILED: median over 12 lines, or no function found"; failed = 1 }
        exit failed
    }'
