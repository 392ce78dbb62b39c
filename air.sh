#!/usr/bin/env bash
# Tries the camera and its phones over a real Bluetooth stack: builds them, and runs Air/test_*.py in a virtual machine
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
# The exit code is the virtual machine's: 0 when all went well, 1 when not. It is 77 when QEMU or the guest's packages
# cannot be had, and nothing was tried. build/air keeps the guest and the whole output of each run.
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

# Runs the guest once, into files of this name. What it ended with is in its last line.
run() {
    local name=$output/$1
    : >"$name.tar"
    timeout -k 10 "$longest" qemu-system-x86_64 -M pc -accel tcg -cpu max -m 512 -smp 1 -nic none -no-reboot \
        -nographic -serial mon:stdio -serial file:"$name.tar" -kernel "$output/vmlinuz" -initrd "$output/initrd.gz" \
        -append "console=ttyS0 panic=-1 quiet no_timer_check AIR_ONLY=${only// /+}" </dev/null 2>&1 |
        stdbuf -oL tr -d '\r' | tee "$name.log" | grep --line-buffered '^air: ' |
        awk '/^air: FAILED: / { failed = 1 } !failed { print; fflush() }' || true
    local ended
    ended=$(sed -n 's/^air: ended with \([0-9]*\)$/\1/p' "$name.log")
    if [ -z "$ended" ]; then
        echo "air: the guest did not come to its end within $longest s; its last lines are:"
        tail -n 30 "$name.log"
        return 1
    fi
    Air/read_monitor.py build/release/Desk/shotmentor-phone "$name.tar" || ended=1
    [ "$ended" -eq 0 ] || sed -n '/^air: FAILED: /,$p' "$name.log"
    return "$ended"
}

for ((number = 1; number <= runs; number++)); do
    begin=$SECONDS status=0
    if "$beside"; then
        run beside >"$output/beside.lines" &
        other=$!
    fi
    run run || status=$?
    if "$beside" && ! wait "$other"; then
        echo "air: the run beside it:"
        cat "$output/beside.lines"
        status=1
    fi
    echo "air: run $number of $runs took $((SECONDS - begin)) s"
    [ "$status" -eq 0 ] || exit "$status"
done
