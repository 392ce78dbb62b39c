#!/usr/bin/env bash
# Fails when a file has a line that is too long or a torn comment, is not formatted as its language is, or when a linter
# finds fault with it: C and C++, Python, shell, CMake and Markdown. All checks are made, and each shows what it finds.
#
# Usage: tools/check_style.sh
set -euo pipefail
cd "$(dirname "$0")/.."

source tools/packages.sh
tools/install.sh "${style_packages[@]}" "${library_packages[@]}" "${desk_packages[@]}" "${test_packages[@]}"
mapfile -t c_files < <(git ls-files '*.c' '*.cpp' '*.h')
mapfile -t python_files < <(git ls-files '*.py')
mapfile -t shell_files < <(git ls-files '*.sh' .ci/run)
mapfile -t cmake_files < <(git ls-files '*CMakeLists.txt' '*.cmake')
mapfile -t all_files < <(git ls-files ':!Fuzz/corpus' ':!ABI/*.abi' ':!*.btsnoop' ':!*.svg' ':!*.schema.json')

failed=()
# Usage: check WHAT COMMAND...
check() {
    "${@:2}" || failed+=("$1")
}

# Looks at each file of ours once, as the debug build with all of the desk compiles it, but without precompiled headers:
# they are the compiler's. Two files are left out that include what a build makes first. The largest files come first,
# so that none is left for a core alone at the end. Without its carets clang does not count the warnings of the system's
# headers, which nobody sees.
run_clang_tidy() {
    local build=build/style
    mkdir -p "$build"
    if ! cmake --preset debug -B "$build" -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON -DSHOTMENTOR_BENCH=ON \
        >"$build/log"; then
        cat "$build/log"
        return 1
    fi
    python3 - "$build/compile_commands.json" <<'END' || return 1
import json, sys
with open(sys.argv[1]) as file:
    commands = json.load(file)
with open(sys.argv[1], "w") as file: # a file of several targets has several commands
    json.dump(list({command["file"]: command for command in commands}.values()), file)
END
    git ls-files -z '*.c' '*.cpp' ':!Bench/Speed.cpp' ':!Desk/SamplePictures/SamplePictures.cpp' | xargs -0 ls -S |
        xargs -P "$(nproc)" -n 1 clang-tidy -quiet -p "$build" --extra-arg=-fno-caret-diagnostics
}

check "line lengths and comments" tools/check_lines.py "${all_files[@]}"
check "format of C and C++" clang-format --dry-run -Werror "${c_files[@]}"
check "clang-tidy" run_clang_tidy
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
