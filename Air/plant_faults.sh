#!/usr/bin/env bash
# Plants faults in a copy of the tree, one after another, and fails where the conversations on the air do not notice.
# Takes a quarter of an hour.
#
# Usage: Air/plant_faults.sh [PATTERN]
#   PATTERN  only the faults with these words in their name; * and ? as in file names
set -euo pipefail
cd "$(dirname "$0")/.."
pattern="*${1:-}*"

./air.sh --fetch
copy=$PWD/build/air/faults
rm -rf "$copy"
mkdir -p "$copy/build/air"
git ls-files -z --cached --others --exclude-standard | cpio --quiet -0pdm "$copy"
cp -al build/air/tree "$copy/build/air/tree"

planted=0 unnoticed=0

# plant NAME FILE OLD NEW CONVERSATIONS: OLD stands there once. The conversations must fail with NEW in its place.
plant() {
    local name=$1 file=$copy/$2 old=$3 new=$4 conversations=$5 status=0
    # shellcheck disable=SC2053 # it is a pattern
    [[ $name == $pattern ]] || return 0
    cp "$file" "$file.whole"
    if ! python3 - "$file" "$old" "$new" <<'END'; then
import sys
path, old, new = sys.argv[1:]
with open(path, encoding="utf-8") as file:
    text = file.read()
if text.count(old) != 1:
    sys.exit(f"{path} has {text.count(old)} times: {old}")
with open(path, "w", encoding="utf-8") as file:
    file.write(text.replace(old, new))
END
        echo "plant_faults.sh: $name: bring its text up to date" >&2
        exit 2
    fi
    "$copy/air.sh" --only "$conversations" >"$copy/lines" 2>&1 || status=$?
    if [ "$status" -eq 1 ] && grep -q ': FAILED, ' "$copy/lines"; then
        echo "noticed: $name: $(grep -m 1 ': FAILED, ' "$copy/lines")"
    else
        echo "NOT NOTICED ($status): $name; $copy/lines.$planted has what was said"
        cp "$copy/lines" "$copy/lines.$planted"
        unnoticed=$((unnoticed + 1))
    fi
    planted=$((planted + 1))
    mv "$file.whole" "$file"
    touch "$file"
}

plant "the basic mode of L2CAP, which loses packets" Desk/Links/Bluetooth.cpp \
    'options.mode = enhanced_retransmission;' 'options.mode = 0;' 'l2cap: *'
plant "a camera hangs up before it has read the last bytes" Desk/Camera/Link.cpp \
    'if (length < 0 && !is_worth_a_retry(errno) && end_ == 0) {' 'if (false) {' '*LastWords*'
plant "a phone hangs up before it has read the last bytes" Desk/Phone/Link.cpp \
    'if (count < 0 && (errno == ECONNRESET || is_bluetooth_)) {' 'if (false) {' '*LastWords*'
plant "no idle time-out" Desk/Camera/Camera.cpp \
    'if (phone_ && phone_->link->is_stalled(*idle_timeout_)) {' 'if (false) {' '*one that stays silent*'
plant "packets that the kernel has no room for" Desk/Links/Bluetooth.h \
    'longest_sent_packet = 4096' 'longest_sent_packet = 65535' '*uploads 599248*'
plant "no room for what arrives over Low Energy" Desk/Links/Bluetooth.h \
    'room_to_receive = 4 << 20' 'room_to_receive = 4 << 10' 'le: *uploads*'
plant "the end of a link overtakes why a phone is turned away" Desk/Camera/Link.cpp \
    'if (socket_.is_open() && can_half_close(socket_.native_handle())) {' 'if (socket_.is_open()) {' \
    '*told that the camera is busy*'
plant "an address of Low Energy is taken for one of the others" Desk/Links/Bluetooth.h \
    'le_public_address = 1;' 'le_public_address = 0;' 'le: *TwoPhones*'
plant "packets are longer than the other side takes" Desk/Links/Bluetooth.cpp \
    'std::min<size_t>(mtu, longest_sent_packet)' 'longest_sent_packet' '*larger than the phone takes*'

echo "$planted planted, $unnoticed not noticed"
[ "$unnoticed" -eq 0 ] && [ "$planted" -gt 0 ]
