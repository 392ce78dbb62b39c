#!/usr/bin/env bash
# Fails when a source is not formatted, or when clang-tidy finds fault with the library.
#
# Usage: tools/check_style.sh BUILD_FOLDER   (a configured one; it names the compiler's options)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: tools/check_style.sh BUILD_FOLDER}

source tools/packages.sh
tools/install.sh "${style_packages[@]}"
git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format --dry-run -Werror
clang-tidy -quiet -p "$build" Src/*.cpp 2>/dev/null
echo "ok: formatted, and clang-tidy is content with the library"
