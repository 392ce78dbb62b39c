#!/usr/bin/env bash
# Fails when a file has a line that is too long or a torn comment, is not formatted as its language is, or when a linter
# finds fault with it: C and C++, Python, shell, CMake and Markdown. All checks are made, and each shows what it finds.
#
# Usage: tools/check_style.sh BUILD_FOLDER   (a configured one; it names the compiler's options)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: tools/check_style.sh BUILD_FOLDER}

source tools/packages.sh
tools/install.sh "${style_packages[@]}"
mapfile -t c_files < <(git ls-files '*.c' '*.cpp' '*.h')
mapfile -t python_files < <(git ls-files '*.py')
mapfile -t shell_files < <(git ls-files '*.sh' .ci/run)
mapfile -t cmake_files < <(git ls-files '*CMakeLists.txt' '*.cmake')
mapfile -t all_files < <(git ls-files ':!Fuzz/corpus')

failed=()
# Usage: check WHAT COMMAND...
check() {
    "${@:2}" || failed+=("$1")
}

check "line lengths and comments" tools/check_lines.py "${all_files[@]}"
check "format of C and C++" clang-format --dry-run -Werror "${c_files[@]}"
# Without its carets clang does not count the warnings of the system's headers, which nobody sees.
check "clang-tidy" clang-tidy -quiet -p "$build" --extra-arg=-fno-caret-diagnostics Src/*.cpp
check "format of Python" black --quiet --check --diff --line-length 120 "${python_files[@]}"
# E203: black puts blanks around a slice's colon. E128: tables that are formatted by hand.
check "flake8" flake8 --max-line-length 120 --extend-ignore E203,E128 "${python_files[@]}"
# SC2016: patterns with backticks and dollars are meant to the letter. SC2317: functions are called by name in `$@`.
check "shellcheck" shellcheck --exclude SC2016,SC2317 "${shell_files[@]}"
# C0103: variables are in lower case. E1120, E1126: it knows neither foreach(RANGE) nor file(CONFIGURE).
check "cmake-lint" cmake-lint --suppress-decorations --line-width 120 --disabled-codes C0103 E1120 E1126 \
    -- "${cmake_files[@]}"

if [ ${#failed[@]} -gt 0 ]; then
    printf 'FAILED: %s\n' "${failed[@]}" >&2
    exit 1
fi
echo "ok: formatted, no line over 120 characters, and the linters are content"
