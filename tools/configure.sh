#!/usr/bin/env bash
# Configures a preset's build. In CI (CI=true) a compiler warning is an error there.
#
# Usage: tools/configure.sh PRESET
set -euo pipefail
cd "$(dirname "$0")/.."

options=()
[ "${CI:-}" != true ] || options+=(-DCMAKE_COMPILE_WARNING_AS_ERROR=ON)
cmake --preset "${1:?usage: tools/configure.sh PRESET}" "${options[@]}"
