#!/usr/bin/env bash
# Builds the camera and the phone for this PC and lets the phone use the camera once. Each command is shown as you would
# type it, and below it what it prints.
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

# In the folder of the demo, where names are short.
programs=$PWD/$build/Desk
cd "$scratch"
PATH=$programs:$PATH
url=unix:camera/camera.sock

# Shows a command as it is typed.
show_typed() {
    local word line='$'
    for word in "$@"; do
        case $word in
        *"'"* | *' '*) line+=" \"$word\"" ;;
        *) line+=" $word" ;;
        esac
    done
    printf '%s\n' "$line"
}

say "a camera starts on a fresh store"
show_typed shotmentor-camera --store camera '&'
touch camera.out
shotmentor-camera --store camera >camera.out 2>camera.log &
camera_id=$!
for ((tries = 0; tries < 300; tries++)); do
    ! grep -q '^listening on ' camera.out || break
    kill -0 "$camera_id" 2>/dev/null || break
    sleep 0.1
done
if ! grep '^listening on ' camera.out; then
    cat camera.log >&2
    fail "the camera does not listen"
fi

# ---- The phone ------------------------------------------------------------------------------------------------------

# Runs one command of the phone, which must end with the exit code given.
run_phone() {
    local expected=$1 code=0
    shift
    shotmentor-phone --connect "$url" "$@" || code=$?
    [ "$code" = "$expected" ] || fail "shotmentor-phone $* ended with $code where $expected was expected"
}

# The same, and shows it.
ask() {
    show_typed shotmentor-phone --connect "$url" "${@:2}"
    run_phone "$@"
}

# Prints the number of the first row of a list that names a text.
number_of() { run_phone 0 --width 0 list | awk -v text="$1" 'index($0, text) { print $1; exit }'; }

say "the phone lists the presets"
ask 0 list

say "it shows preset 1 in full"
ask 0 show 1

say "it fetches the picture of preset 1 and saves it"
ask 0 picture 1 -o picture.jpg
[ "$(head -c 3 picture.jpg | od -An -tx1 | tr -d ' ')" = ffd8ff ] || fail "the saved picture is no JPEG"
show_typed ls -l picture.jpg
ls -l picture.jpg

say "it stores a new preset: preset 1 under another title, with that picture"
show_typed shotmentor-phone --connect "$url" --json show 1 '>' new.json
run_phone 0 --json show 1 >new.json
printf '%s\n' "\$ sed -i 's/\"title\": .*/\"title\": \"Made by the demo\",/' new.json"
sed -i 's/"title": .*/"title": "Made by the demo",/' new.json
grep -q '"title": "Made by the demo"' new.json || fail "the preset file has no line for the title"
ask 0 store new.json picture.jpg

say "it lists the presets again"
ask 0 list
number=$(number_of "Made by the demo")
[ -n "$number" ] || fail "the new preset is not in the list"

say "it renames the new preset, found by its title"
ask 0 rename "made by" "Renamed by the demo"
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
show_typed kill %1
kill "$camera_id"
code=0
wait "$camera_id" || code=$?
camera_id=
[ "$code" = 0 ] || fail "the camera ended with $code: $(cat camera.log)"

cat <<END

All went well. By hand, in one terminal:
    cd /tmp
    PATH=$programs:\$PATH
    shotmentor-camera --store camera
and in another:
    cd /tmp
    PATH=$programs:\$PATH
    shotmentor-phone --connect $url list
    shotmentor-phone --connect $url show 1
    shotmentor-phone --help
END
