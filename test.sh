#!/usr/bin/env bash
# Installs what is missing, then configures, builds and runs all tests.
#
# Usage: ./test.sh [PRESET...]
#   PRESET  one of release (the default), debug, asan, coverage, armhf
# In CI (CI=true) a compiler warning is an error.
set -euo pipefail
cd "$(dirname "$0")"

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(release)

packages=(g++ cmake ninja-build googletest pmccabe)
for preset in "${presets[@]}"; do
    case $preset in
    release | debug | asan) ;;
    coverage) packages+=(gcovr) ;;
    armhf) packages+=(g++-arm-linux-gnueabihf qemu-user-static) ;;
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
        gcovr --root . --filter Src/ --branches --exclude-throw-branches --print-summary --txt build/coverage/coverage.txt build/coverage
        cat build/coverage/coverage.txt
    fi
done
