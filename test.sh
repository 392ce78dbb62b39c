#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs all tests.
#
# Usage: ./test.sh [PRESET...]
#   PRESET  one of release (the default), debug, asan, coverage, armhf
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
    coverage) packages+=("${coverage_packages[@]}") ;;
    armhf) packages+=("${armhf_packages[@]}") ;;
    *)
        echo "test.sh: no preset '$preset'; choose from release, debug, asan, coverage, armhf" >&2
        exit 2
        ;;
    esac
done
tools/install.sh "${packages[@]}"

options=()
[ "${CI:-}" != true ] || options+=(-DCMAKE_COMPILE_WARNING_AS_ERROR=ON)
for preset in "${presets[@]}"; do
    echo "==> $preset"
    cmake --preset "$preset" "${options[@]}"
    cmake --build --preset "$preset"
    ctest --preset "$preset"
    if [ "$preset" = coverage ]; then
        gcovr --root . --filter Src/ --branches --exclude-throw-branches --print-summary \
            --fail-under-line 100 --fail-under-branch 100 --txt build/coverage/coverage.txt build/coverage
        cat build/coverage/coverage.txt
    fi
done
