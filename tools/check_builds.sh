#!/usr/bin/env bash
# Runs the tests of the release build in valgrind, and against the library as other compilers and optimisations make it,
# and compares the transcripts. Fails also when a condition in one of the library's decisions is never seen to decide
# on its own (MC/DC).
#
# Usage: tools/check_builds.sh
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/packages.sh
tools/install.sh "${library_packages[@]}" "${desk_packages[@]}" "${test_packages[@]}" "${builds_packages[@]}"
tools/configure.sh release
cmake --build --preset release --target shotmentor_tests wire_tests

build=$PWD/build/release
work=$build/builds
tests=$build/Tests/shotmentor_tests
# The host's allocator is watched by the tests themselves: valgrind must leave theirs in place.
valgrind=(valgrind --quiet --leak-check=full --error-exitcode=9 --soname-synonyms=somalloc=nouserintercepts)
rm -rf "$work"

# Usage: run NAME LIBRARY_FOLDER TESTS...; the library in that folder takes the place of the build's own
run() {
    local name=$1 library=$2
    shift 2
    mkdir -p "$work/$name/transcripts"
    if ! SHOTMENTOR_TRANSCRIPTS=$work/$name/transcripts LD_LIBRARY_PATH=$library "$@" --gtest_brief=1 \
        >"$work/$name/output" 2>&1; then
        grep -v '^\[ALG_' "$work/$name/output" | tail -n 100
        echo "FAILED: the tests with the library of $name" >&2
        exit 1
    fi
    grep -h '^\[==========\]' "$work/$name/output" | sed "s|^\[=*\]|$name:|"
}

# Usage: make_library NAME C++_COMPILER C_COMPILER FLAGS [CMAKE_OPTION]
make_library() {
    local log=$work/$1/log
    mkdir -p "$work/$1"
    if ! { cmake -S . -B "$work/$1" -G Ninja -DCMAKE_CXX_COMPILER="$2" -DCMAKE_C_COMPILER="$3" \
        -DCMAKE_CXX_FLAGS="$4" -DCMAKE_C_FLAGS="$4" -DCMAKE_BUILD_TYPE=None -DSHOTMENTOR_TESTS=OFF \
        -DSHOTMENTOR_DESK=OFF -DCMAKE_COMPILE_WARNING_AS_ERROR=ON "${@:5}" &&
        cmake --build "$work/$1" --target shotmentor; } >"$log" 2>&1; then
        cat "$log"
        echo "FAILED: the library does not build with $2 $4" >&2
        exit 1
    fi
}

run as-built "$build/Src" "$tests"
{ # takes as long as all that follows
    run in-valgrind "$build/Src" "${valgrind[@]}" "$tests"
    if grep -q 'neither the memory sanitizer nor valgrind' "$work/in-valgrind/output"; then
        echo "FAILED: the tests were built before valgrind was installed; remove build/release and run this again" >&2
        exit 1
    fi
    run wire/in-valgrind "$build/Src" "${valgrind[@]}" "$build/Tests/Desk/wire_tests"
} &
in_valgrind=$!
for flags in -O0 -O1 -O2 -O3 -Os "-O2 -flto" "-Os -flto"; do
    name="gcc${flags// /}"
    make_library "$name" g++ gcc "$flags"
    run "$name" "$work/$name/Src" "$tests"
done
for flags in -O0 -O2 -O3 -Os -Oz; do
    make_library "clang$flags" clang++-14 clang-14 "$flags"
    run "clang$flags" "$work/clang$flags/Src" "$tests"
done
make_library mcdc clang++-19 clang-19 -O0 -DSHOTMENTOR_COVERAGE=conditions
LLVM_PROFILE_FILE=$work/mcdc.profraw run mcdc "$work/mcdc/Src" "$tests"
llvm-profdata-19 merge -o "$work/mcdc.profdata" "$work/mcdc.profraw"
llvm-cov-19 export "$work/mcdc/Src/libshotmentor.so" -instr-profile="$work/mcdc.profdata" -summary-only \
    >"$work/mcdc.json"
python3 - "$work/mcdc.json" <<'END'
import json, sys
with open(sys.argv[1]) as file:
    found = json.load(file)["data"][0]["totals"]["mcdc"]
kept = 0 < found["count"] == found["covered"]
print("ok:" if kept else "FAILED:", f"{found['covered']} of {found['count']} conditions decide on their own (MC/DC)")
sys.exit(0 if kept else 1)
END
wait "$in_valgrind"
tools/compare_transcripts.sh "$work"/*/transcripts
