#!/usr/bin/env bash
# Installs what is missing, builds the fuzzers and runs one of them, or each in turn, on all cores.
#
# Usage: ./fuzz.sh TARGET|all MINUTES
#   TARGET  a Fuzz/<TARGET>Fuzz.cpp, such as Conversation
# Inputs that reach new code are kept in build/fuzz/corpus/TARGET for the next run. An input that breaks a promise is
# left in build/fuzz/findings/TARGET, and the exit code is then 1. FUZZ_WORKERS runs on fewer cores.
set -euo pipefail
cd "$(dirname "$0")"
source tools/packages.sh

known=()
for source in Fuzz/*Fuzz.cpp; do
    known+=("$(basename "$source" Fuzz.cpp)")
done
if [ $# -ne 2 ] || ! [[ $2 =~ ^[1-9][0-9]*$ ]] || ! [[ " all ${known[*]} " == *" $1 "* ]]; then
    echo "usage: ./fuzz.sh TARGET MINUTES, TARGET one of: all ${known[*]}" >&2
    exit 2
fi
targets=("$1")
[ "$1" != all ] || targets=("${known[@]}")
seconds=$((60 * $2))
workers=${FUZZ_WORKERS:-$(nproc)}

tools/install.sh "${library_packages[@]}" "${desk_packages[@]}" "${fuzz_packages[@]}"
cmake --preset fuzz
cmake --build --preset fuzz --target "${targets[@]/#/fuzz_}"

# Less than the sanitizers' defaults where that costs speed and finds nothing: the compiler checks printf's arguments
# already, and a freed block need not be kept back for longer than a run.
export ASAN_OPTIONS=check_printf=0:quarantine_size_mb=8${ASAN_OPTIONS:+:$ASAN_OPTIONS}

# Prints one target's counts. Returns 1 when it has findings of this run.
fuzz() {
    local target=$1 folder=$PWD/build/fuzz
    local corpus=$folder/corpus/$target findings=$folder/findings/$target logs=$folder/logs/$target
    mkdir -p "$corpus" "$findings"
    rm -rf "$logs"
    mkdir -p "$logs"
    local options=(-max_total_time="$seconds" -max_len=1024 -len_control=0 -timeout=25 -reload=1
        -jobs="$workers" -workers="$workers" -artifact_prefix="$findings/")
    [ "$target" != PresetJson ] || options+=(-max_len=4096 -dict="$PWD/Fuzz/json.dict")
    local started=$logs/started status=0
    touch "$started"
    echo "==> $target, $2 minutes on $workers cores"
    (cd "$logs" && "$folder/Fuzz/fuzz_$target" "${options[@]}" "$corpus" "$OLDPWD/Fuzz/corpus/$target") \
        >"$logs/output" 2>&1 || status=1
    # The last of a worker's lines with a "#" has its counts: "#12345 DONE cov: 678 ft: ...".
    local executions coverage found
    local counts='/^#[0-9]/ { last[FILENAME] = $2 } END { for (file in last) sum += last[file]; print sum + 0 }'
    executions=$(awk -F'[#\t ]' "$counts" \
        "$logs"/fuzz-*.log)
    coverage=$(grep -ho 'cov: [0-9]*' "$logs"/fuzz-*.log | awk '$2 > most { most = $2 } END { print most + 0 }')
    found=$(find "$findings" -type f -newer "$started" | wc -l)
    echo "$target: $executions executions, $coverage edges, $found findings"
    if [ "$found" -gt 0 ] || [ "$status" -ne 0 ]; then
        echo "$target: see $logs and $findings" >&2
        return 1
    fi
}

failed=0
for target in "${targets[@]}"; do
    fuzz "$target" "$2" || failed=1
done
exit "$failed"
