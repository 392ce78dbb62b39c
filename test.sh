#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs all tests.
#
# Usage: ./test.sh [PRESET...]
#   PRESET  one of release (the default), debug, asan, clang, msan, coverage, armhf, i686
# With several presets the tests must behave the same in each: calls, replies and log lines are compared.
# In CI (CI=true) a compiler warning is an error.
set -euo pipefail
cd "$(dirname "$0")"
source tools/packages.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release)

packages=("${library_packages[@]}" "${test_packages[@]}")
for preset in "${presets[@]}"; do
    case $preset in
    release | debug | asan) packages+=("${desk_packages[@]}") ;;
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
    tools/configure.sh "$preset"
    cmake --build --preset "$preset"
    transcripts=$PWD/build/$preset/transcripts
    rm -rf "$transcripts"
    mkdir "$transcripts"
    SHOTMENTOR_TRANSCRIPTS=$transcripts ctest --preset "$preset"
    if [ "$preset" = coverage ]; then
        gcovr --root . --filter Src/ --branches --exclude-throw-branches --print-summary \
            --fail-under-line 100 --fail-under-branch 100 --txt build/coverage/coverage.txt build/coverage
        cat build/coverage/coverage.txt
    fi
done
folders=("${presets[@]/#/build/}")
[ ${#folders[@]} -eq 1 ] || tools/compare_transcripts.sh "${folders[@]/%//transcripts}"
