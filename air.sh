#!/usr/bin/env bash
# Tries the camera and its phones over a real Bluetooth stack: builds them, and runs Air/test_*.py in virtual machines
# with emulated controllers, over RFCOMM, L2CAP and Low Energy. Prints one line for each conversation; what failed comes
# last, with all that is known of it.
#
# Usage: ./air.sh [--only PATTERN] [--beside] [RUNS]
#        ./air.sh --fetch
#   --only PATTERN  just the conversations with these words in their line, or in their name Air.FILE.CLASS/LINK.TEST;
#                   * and ? as in file names
#   --beside        another run at the same time, for the load: both have to pass
#   RUNS            so many runs, one after the other; ends with the first that fails
#   --fetch         only installs and fetches what is needed, 75 MB the first time
# The exit code is 0 when all went well, 1 when not. It is 77 when QEMU or the guest's packages cannot be had, and
# nothing was tried. build/air keeps the guest and the whole output of the last run.
set -euo pipefail
cd "$(dirname "$0")"
source tools/packages.sh

only='' beside=false runs=1 fetch=false
while [ $# -gt 0 ]; do
    case $1 in
    --only)
        [ -n "${2:-}" ] || { echo "air.sh: --only needs a part of a line, such as 'le: *reconnect*'" >&2; exit 2; }
        only=$2
        shift
        ;;
    --beside) beside=true ;;
    --fetch) fetch=true ;;
    *)
        [[ $1 =~ ^[1-9][0-9]*$ ]] || { echo "usage: ./air.sh [--only PATTERN] [--beside] [RUNS]" >&2; exit 2; }
        runs=$1
        ;;
    esac
    shift
done
# The kernel's command line takes them to the guest, and is cut at blanks.
[[ $only != *[\"+]* ]] || { echo "air.sh: no conversation has a '+' or a '\"' in its name" >&2; exit 2; }

output=$PWD/build/air
longest=400 # seconds that a run may take

skip() {
    echo "air: skipped: $*" >&2
    exit 77
}

mkdir -p "$output"
[ "$(uname -m)" = x86_64 ] || skip "the guest is one for x86_64, and this machine is none"
tools/install.sh "${air_packages[@]}" >"$output/install.log" 2>&1 ||
    skip "QEMU cannot be installed: $(tail -n 1 "$output/install.log")"
Air/make_guest.sh --fetch "$output" || exit
! "$fetch" || exit 0

tools/install.sh "${library_packages[@]}" "${desk_packages[@]}"
if ! { tools/configure.sh release && cmake --build --preset release --target shotmentor-camera shotmentor-phone; } \
    >"$output/build.log" 2>&1; then
    cat "$output/build.log" >&2
    exit 1
fi
Air/make_guest.sh build/release "$output"

# One for each kind of link, and one for conversations with the daemon: the emulated controllers have one kind of link
# at a time, and a guest that breaks takes no other's conversations along.
guests=(rfcomm l2cap le daemon)
nothing_wanted=2

# Runs one of them, into files of this name. What it ended with stands in its last line.
run_guest() {
    local name=$output/$1.$2
    : >"$name.tar"
    timeout -k 10 "$longest" qemu-system-x86_64 -M pc -accel tcg -cpu max -m 512 -smp 1 -nic none -no-reboot \
        -nographic -serial mon:stdio -serial file:"$name.tar" -kernel "$output/vmlinuz" -initrd "$output/initrd.gz" \
        -append "console=ttyS0 panic=-1 quiet no_timer_check AIR_GUEST=$2 AIR_ONLY=${only// /+}" </dev/null 2>&1 |
        stdbuf -oL tr -d '\r' | tee "$name.log" |
        grep --line-buffered '^air: .*: .*, [0-9.]* s$\|^air: measured: ' || true
}

# What became of one, as an exit code. What failed in it is printed with all that is known of it.
judge_guest() {
    local name=$output/$1.$2 ended
    ended=$(sed -n 's/^air: ended with \([0-9]*\)$/\1/p' "$name.log")
    if [ -z "$ended" ]; then
        echo "air: the guest of $2 did not come to its end within $longest s; its last lines are:"
        tail -n 30 "$name.log"
        return 1
    fi
    sed -n '/^air: FAILED: /,$p' "$name.log"
    Air/read_monitor.py build/release/Desk/shotmentor-phone "$name.tar" || ended=1
    return "$ended"
}

# All guests once, two at a time.
run() {
    local guest status=$nothing_wanted code
    for guest in "${guests[@]}"; do
        while [ "$(jobs -rp | wc -l)" -ge 2 ]; do
            wait -n
        done
        run_guest "$1" "$guest" &
    done
    wait
    for guest in "${guests[@]}"; do
        code=0
        judge_guest "$1" "$guest" || code=$?
        [ "$code" -eq "$nothing_wanted" ] || status=$((status == 1 || code != 0))
    done
    if [ "$status" -eq "$nothing_wanted" ]; then
        echo "air: no conversation has a name like '$only'"
    else
        sed -n 's/^air: \([0-9]*\) conversations, \([0-9]*\) failed, .*/\1 \2/p' "$output/$1".*.log |
            awk '{ all += $1; failed += $2 } END { print "air: " all " conversations, " failed " failed" }'
    fi
    return "$((status != 0))"
}

for ((number = 1; number <= runs; number++)); do
    begin=$SECONDS status=0
    if "$beside"; then
        (run beside) >"$output/beside.lines" &
        other=$!
    fi
    (run run) || status=1
    if "$beside" && ! wait "$other"; then
        echo "air: the run beside it:"
        cat "$output/beside.lines"
        status=1
    fi
    echo "air: run $number of $runs took $((SECONDS - begin)) s"
    [ "$status" -eq 0 ] || exit "$status"
done
