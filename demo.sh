#!/usr/bin/env bash
# Builds the camera and the phone for this PC and lets the phone use the camera once, each command and its outcome
# shown.
#
# Usage: ./demo.sh
# Installs what is missing (Debian 12 packages, as root or through sudo).
set -euo pipefail
cd "$(dirname "$0")"

say() { printf '\n==> %s\n' "$*"; }
fail() {
    printf 'demo.sh: %s\n' "$*" >&2
    exit 1
}

source tools/packages.sh
tools/install.sh "${library_packages[@]}" "${desk_packages[@]}"

# ---- Build ----------------------------------------------------------------------------------------------------------

build=build/demo
camera=$build/Desk/shotmentor-camera
phone=$build/Desk/shotmentor-phone
scratch=$(mktemp -d)
camera_id=

clean_up() {
    local code=$?
    trap - EXIT
    if [ -n "$camera_id" ]; then
        kill "$camera_id" 2>/dev/null || true
        wait "$camera_id" 2>/dev/null || true
    fi
    rm -rf "$scratch"
    exit "$code"
}
trap clean_up EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

say "building the camera and the phone (a minute or two the first time)"
mkdir -p "$build"
log=$build/demo.log
if ! {
    cmake -S . -B "$build" -G Ninja -DSHOTMENTOR_TESTS=OFF -DCMAKE_BUILD_TYPE=MinSizeRel &&
        cmake --build "$build" --target shotmentor-camera shotmentor-phone
} >"$log" 2>&1; then
    cat "$log" >&2
    fail "the build failed; its output is above and in $log"
fi

# ---- The camera -----------------------------------------------------------------------------------------------------

store=$scratch/store
say "a camera starts on a fresh store"
"$camera" --store "$store" >"$scratch/camera.out" 2>"$scratch/camera.log" &
camera_id=$!
url=
for ((tries = 0; tries < 300; tries++)); do
    url=$(sed -n 's/^listening on //p' "$scratch/camera.out")
    [ -z "$url" ] || break
    kill -0 "$camera_id" 2>/dev/null || break
    sleep 0.1
done
if [ -z "$url" ]; then
    cat "$scratch/camera.log" >&2
    fail "the camera does not listen"
fi
echo "listening on $url"

# ---- The phone ------------------------------------------------------------------------------------------------------

# Runs one command of the phone, which must end with the exit code given.
ask() {
    local expected=$1 code=0
    shift
    "$phone" --connect "$url" "$@" || code=$?
    [ "$code" = "$expected" ] || fail "shotmentor-phone $* ended with $code where $expected was expected"
}

# Prints the number of the first row of a list that names a text.
number_of() { ask 0 --width 0 list | awk -v text="$1" 'index($0, text) { print $1; exit }'; }

say "the phone lists the presets"
ask 0 list

say "it shows preset 1 in full"
ask 0 show 1

say "it fetches the picture of preset 1 and saves it"
ask 0 picture 1 -o "$scratch/picture.jpg"
[ "$(head -c 3 "$scratch/picture.jpg" | od -An -tx1 | tr -d ' ')" = ffd8ff ] || fail "the saved picture is no JPEG"
echo "a JPEG of $(stat -c %s "$scratch/picture.jpg") bytes"

say "it stores a new preset: preset 1 under another title, with that picture"
ask 0 --json show 1 >"$scratch/shown.json"
sed 's/^\( *"title": \).*/\1"Made by the demo",/' "$scratch/shown.json" >"$scratch/new.json"
grep -q '"title": "Made by the demo"' "$scratch/new.json" || fail "the preset file has no line for the title"
ask 0 store "$scratch/new.json" "$scratch/picture.jpg"

say "it lists the presets again"
ask 0 list >"$scratch/list"
cat "$scratch/list"
number=$(number_of "Made by the demo")
[ -n "$number" ] || fail "the new preset is not in the list"

say "it renames the new preset"
id=$(ask 0 --json show "$number" | sed -n 's/^ *"custom_id": \([0-9]*\),*$/\1/p')
[ -n "$id" ] || fail "preset $number has no custom_id"
ask 0 rename "$id" "Renamed by the demo"
[ "$(number_of "Renamed by the demo")" = "$number" ] || fail "the new title is not in the list"

used=$(number_of CUSTOM1)
[ -n "$used" ] || fail "no preset is in use by CUSTOM1"
say "it deletes the new preset, and preset $used, which CUSTOM1 uses"
ask 17 delete "$number" "$used"
echo "exit code 17: the camera kept preset $used and said so"
[ -z "$(number_of "Renamed by the demo")" ] || fail "the deleted preset is still in the list"
[ "$(number_of CUSTOM1)" = "$used" ] || fail "the camera did not keep the preset that CUSTOM1 uses"
ask 0 list

say "it leaves"
ask 0 leave

say "the camera ends in order"
kill "$camera_id"
code=0
wait "$camera_id" || code=$?
camera_id=
[ "$code" = 0 ] || fail "the camera ended with $code: $(cat "$scratch/camera.log")"

cat <<END

All went well. By hand, in one terminal:
    $camera --store my-camera
and in another:
    $phone --connect unix:my-camera/camera.sock list
    $phone --connect unix:my-camera/camera.sock show 1
    $phone --help
END
