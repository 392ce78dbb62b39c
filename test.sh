#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs all tests.
#
# Usage: ./test.sh [--only PATTERN]... [PRESET...]
#   PRESET          one of release (the default), debug, asan, clang, msan, coverage, armhf, i686
#   --only PATTERN  builds what the tests of this name need and runs just these; * and ? as in file names:
#                     --only 'Intake.*'                     GoogleTests, as Suite.Test
#                     --only 'Sources.*'                    a script's check, or any other name that ctest knows
#                     --only Desk.test_camera               a file of conversations
#                     --only 'Desk.test_camera:Class.test'  one conversation; or :Class for all of a class
# With several presets the tests must behave the same in each: calls, replies and log lines are compared. That, and what
# the coverage preset demands, is left out with --only.
# The conversations on the air are left out: ./air.sh runs them.
# In CI (CI=true) a compiler warning is an error.
set -euo pipefail
cd "$(dirname "$0")"
source tools/packages.sh

patterns=()
presets=()
while [ $# -gt 0 ]; do
    if [ "$1" = --only ]; then
        [ -n "${2:-}" ] || { echo "test.sh: --only needs the name of a test, such as 'Intake.*'" >&2; exit 2; }
        patterns+=("$2")
        shift
    else
        presets+=("$1")
    fi
    shift
done
[ ${#presets[@]} -gt 0 ] || presets=(release)

packages=("${library_packages[@]}" "${test_packages[@]}")
for preset in "${presets[@]}"; do
    case $preset in
    release)
        packages+=("${desk_packages[@]}" "${reference_packages[@]}" "${dissector_packages[@]}" "${parser_packages[@]}")
        ;;
    debug | asan) packages+=("${desk_packages[@]}" "${reference_packages[@]}") ;;
    clang) packages+=("${wire_packages[@]}" "${clang_packages[@]}") ;;
    msan) packages+=("${clang_packages[@]}") ;;
    coverage) packages+=("${coverage_packages[@]}") ;;
    armhf) packages+=("${armhf_packages[@]}") ;;
    i686) packages+=("${wire_packages[@]}" "${i686_packages[@]}") ;;
    *)
        echo "test.sh: no preset '$preset'; choose from release, debug, asan, clang, msan, coverage, armhf, i686" >&2
        exit 2
        ;;
    esac
done
tools/install.sh "${packages[@]}"

for preset in "${presets[@]}"; do
    echo "==> $preset"
    if [ ${#patterns[@]} -gt 0 ]; then
        # What CMake says at length is of interest only when it fails.
        mkdir -p build
        tools/configure.sh "$preset" >build/configure.log 2>&1 || { cat build/configure.log >&2; exit 1; }
        tools/run_only.py "$preset" "${patterns[@]}"
        continue
    fi
    tools/configure.sh "$preset"
    cmake --build --preset "$preset"
    transcripts=$PWD/build/$preset/transcripts
    rm -rf "$transcripts"
    mkdir "$transcripts"
    # One more than there are cores: half of the tests wait for what the others reckon.
    if ! SHOTMENTOR_TRANSCRIPTS=$transcripts ctest --preset "$preset" -LE air -j "$(($(nproc) + 1))"; then
        tools/show_failures.py "build/$preset"
        exit 1
    fi
    if [ "$preset" = coverage ]; then
        gcovr --root . --filter Src/ --branches --exclude-throw-branches --print-summary \
            --fail-under-line 100 --fail-under-branch 100 --txt build/coverage/coverage.txt build/coverage
        cat build/coverage/coverage.txt
    fi
done
[ ${#patterns[@]} -eq 0 ] || exit 0
folders=("${presets[@]/#/build/}")
[ ${#folders[@]} -eq 1 ] || tools/compare_transcripts.sh "${folders[@]/%//transcripts}"
