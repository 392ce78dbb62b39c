#!/usr/bin/env bash
# Installs what is missing, builds the fuzzers and runs one of them on all cores, or each of them on one core.
#
# Usage: [FUZZ_ENGINE=afl] ./fuzz.sh TARGET|all MINUTES
#   TARGET       a Fuzz/<TARGET>Fuzz.cpp, such as Conversation
#   FUZZ_ENGINE  libfuzzer (the default), or afl for AFL++
# Inputs that reach new code are kept in build/<engine>/corpus/TARGET for the next run. An input that breaks a promise
# is left in build/<engine>/findings/TARGET, and the exit code is then 1. FUZZ_WORKERS runs on fewer cores.
set -euo pipefail
cd "$(dirname "$0")"
source tools/packages.sh

known=()
for source in Fuzz/*Fuzz.cpp; do
    known+=("$(basename "$source" Fuzz.cpp)")
done
if [ $# -ne 2 ] || ! [[ $2 =~ ^([1-9][0-9]*|0\.[1-9])$ ]] || ! [[ " all ${known[*]} " == *" $1 "* ]]; then
    echo "usage: ./fuzz.sh TARGET MINUTES, TARGET one of: all ${known[*]}; MINUTES from 0.1 on" >&2
    exit 2
fi
case ${FUZZ_ENGINE:=libfuzzer} in
libfuzzer) preset=fuzz engine_packages=("${clang_packages[@]}") ;;
afl) preset=afl engine_packages=("${afl_packages[@]}") ;;
*)
    echo "fuzz.sh: no engine '$FUZZ_ENGINE'; FUZZ_ENGINE is libfuzzer or afl" >&2
    exit 2
    ;;
esac
targets=("$1")
[ "$1" != all ] || targets=("${known[@]}")
seconds=$(awk -v minutes="$2" 'BEGIN { print 60 * minutes }')
cores=${FUZZ_WORKERS:-$(nproc)}
folder=$PWD/build/$preset

tools/install.sh "${library_packages[@]}" "${desk_packages[@]}" "${engine_packages[@]}"
tools/configure.sh "$preset"
cmake --build --preset "$preset" --target "${targets[@]/#/fuzz_}"

# Less than the sanitizers' defaults where that costs speed and finds nothing: the compiler checks printf's arguments
# already, and a freed block need not be kept back for longer than a run.
export ASAN_OPTIONS=check_printf=0:quarantine_size_mb=8${ASAN_OPTIONS:+:$ASAN_OPTIONS}

# Both engines: run TARGET WORKERS puts new inputs, findings and logs into their folders and the number of executions
# and of edges reached into `executions` and `edges`. Returns the engine's exit code.
run_libfuzzer() {
    local target=$1 status=0
    local options=(-max_total_time="$seconds" -max_len=1024 -len_control=0 -timeout=25 -reload=1
        -jobs="$2" -workers="$2" -artifact_prefix="$findings/")
    [ "$target" != PresetJson ] || options+=(-max_len=4096 -dict="$PWD/Fuzz/json.dict")
    (cd "$logs" && "$folder/Fuzz/fuzz_$target" "${options[@]}" "$corpus" "$OLDPWD/Fuzz/corpus/$target") \
        >"$logs/output" 2>&1 || status=$?
    # The last of a worker's lines with a "#" has its counts: "#12345 DONE cov: 678 ft: ...".
    executions=$(awk -F'[#\t ]' '/^#[0-9]/ { last[FILENAME] = $2 }
        END { for (file in last) sum += last[file]; print sum + 0 }' "$logs"/fuzz-*.log)
    edges=$(grep -ho 'cov: [0-9]*' "$logs"/fuzz-*.log | awk '$2 > most { most = $2 } END { print most + 0 }')
    return "$status"
}

run_afl() {
    local target=$1 status=0 worker pids=() inputs=$logs/inputs role=-M
    export AFL_NO_UI=1 AFL_SKIP_CPUFREQ=1 AFL_NO_AFFINITY=1 AFL_I_DONT_CARE_ABOUT_MISSING_CRASHES=1
    export ASAN_OPTIONS=$ASAN_OPTIONS:abort_on_error=1:symbolize=0 UBSAN_OPTIONS=abort_on_error=1:symbolize=0
    local options=(-V "$seconds" -m none -t 5000 -G 1024 -o "$logs/out")
    [ "$target" != PresetJson ] || options+=(-G 4096 -x "$PWD/Fuzz/json.dict")
    mkdir "$inputs"
    cp "Fuzz/corpus/$target"/* "$inputs"
    find "$corpus" -type f -exec cp -t "$inputs" {} +
    for ((worker = 0; worker < $2; ++worker)); do
        afl-fuzz "${options[@]}" -i "$inputs" "$role" "$worker" -- "$folder/Fuzz/fuzz_$target" \
            >"$logs/output-$worker" 2>&1 &
        pids+=($!)
        role=-S
    done
    for worker in "${pids[@]}"; do
        wait "$worker" || status=$?
    done
    find "$logs"/out/*/queue -maxdepth 1 -type f -exec cp -t "$corpus" {} +
    find "$logs"/out/*/crashes "$logs"/out/*/hangs -type f -not -name README.txt -exec cp -t "$findings" {} +
    executions=$(awk '$1 == "execs_done" { sum += $3 } END { print sum + 0 }' "$logs"/out/*/fuzzer_stats)
    edges=$(awk '$1 == "edges_found" && $3 > most { most = $3 } END { print most + 0 }' "$logs"/out/*/fuzzer_stats)
    return "$status"
}

# Prints one target's counts. Returns 1 when it has findings of this run.
fuzz() {
    local target=$1 workers=$2 status=0 executions=0 edges=0 found
    local corpus=$folder/corpus/$target findings=$folder/findings/$target logs=$folder/logs/$target
    mkdir -p "$corpus" "$findings"
    rm -rf "$logs"
    mkdir -p "$logs"
    touch "$logs/started"
    echo "==> $target: ${seconds} s, cores: $workers, engine: $FUZZ_ENGINE"
    "run_$FUZZ_ENGINE" "$target" "$workers" || status=$?
    found=$(find "$findings" -type f -newer "$logs/started" | wc -l)
    echo "$target: $executions executions, $edges edges, $found findings"
    if [ "$found" -gt 0 ] || [ "$status" -ne 0 ]; then
        echo "$target: see $logs and $findings" >&2
        return 1
    fi
}

if [ ${#targets[@]} -eq 1 ]; then
    fuzz "${targets[0]}" "$cores"
    exit
fi
failed=0 running=0
for target in "${targets[@]}"; do
    if [ "$running" -eq "$cores" ]; then
        wait -n || failed=1
        running=$((running - 1))
    fi
    fuzz "$target" 1 &
    running=$((running + 1))
done
for ((; running > 0; --running)); do
    wait -n || failed=1
done
exit "$failed"
