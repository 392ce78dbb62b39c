#!/bin/sh
# Runs inside a minimal Debian that has nothing of ours but three packages and this folder: installs them, uses them as
# a tester, as a firmware engineer in C and in C++, and removes them again.
#
# Usage: in_fresh_debian.sh FOLDER_OF_PACKAGES
set -eu
here=$(dirname "$0")
packages=$1
work=$(mktemp -d)
cd "$work"
export DEBIAN_FRONTEND=noninteractive

say() { echo "==> $*"; }
fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# Usage: quietly COMMAND...; shows what it said when it fails
quietly() { "$@" >output 2>&1 || { cat output >&2; fail "$*"; }; }

# Usage: serve NAME COMMAND...; starts a camera or a host, and sets `url` to where it listens
serve() {
    name=$1
    shift
    "$@" >"$name.out" 2>"$name.log" &
    server=$!
    url=
    for _ in $(seq 100); do
        url=$(sed -n 's/^.*listening on //p' "$name.out")
        [ -z "$url" ] || return 0
        sleep 0.1
    done
    cat "$name.log" >&2
    fail "$name does not listen"
}

stop() {
    kill "$server"
    wait "$server" || true
}

# The six requests, each with an outcome that can be told: what is stored is what comes back.
all_requests() {
    set -- shotmentor-phone --connect "$url"
    "$@" --json list >before.json
    "$@" store preset.json picture.jpg >stored
    number=$(sed -n 's/^stored as preset \([0-9]*\) with id .*/\1/p' stored)
    id=$(sed -n 's/^stored as preset .* with id \([0-9]*\)$/\1/p' stored)
    quietly "$@" picture "$number" -o back.jpg
    cmp picture.jpg back.jpg
    quietly "$@" rename "id:$id" "Under another title"
    "$@" show "$number" | grep -q "Under another title" || fail "$name did not rename the preset"
    "$@" delete "$number" >/dev/null
    "$@" --json list >after.json
    quietly "$@" leave
    cmp before.json after.json
    echo "ok: $name answers all six requests"
}

# What the phone itself finds out about a camera's host.
check() {
    quietly shotmentor-phone --connect "$url" check
    tail -n 1 output
}

say "a tester installs the packages"
quietly apt-get update
quietly apt-get install -y --no-install-recommends "$packages"/*.deb
version=$(shotmentor-phone --version)
[ "$(shotmentor-camera --version)" = "$version" ] || fail "the tools are of several versions"
for package in libshotmentor1 libshotmentor-dev shotmentor-tools; do
    installed=$(dpkg-query --show --showformat='${db:Status-Status} ${Version}' "$package")
    [ "$installed" = "installed $version" ] || fail "$package is '$installed', the tools say $version"
done
for tool in shotmentor-camera shotmentor-phone; do
    for file in man/man1/$tool.1.gz bash-completion/completions/$tool zsh/vendor-completions/_$tool \
        fish/vendor_completions.d/$tool.fish; do
        [ -s "/usr/share/$file" ] || fail "/usr/share/$file is not there"
    done
done
schema=/usr/share/shotmentor/preset.schema.json
shotmentor-phone new | grep -qF "\"file://$schema\"" || fail "a preset file does not name its schema"
[ -s "$schema" ] || fail "there is no schema of preset files"
[ -s /usr/share/shotmentor/shotmentor.lua ] || fail "there is no dissector for Wireshark"
[ -s /usr/share/shotmentor/shotmentor.ksy ] || fail "there is no description of the protocol"
[ -s /usr/share/doc/libshotmentor-dev/html/index.html ] || fail "there is no reference of the headers"

say "the camera and the phone run, with nothing but the packages"
# Started as the user's service manager would, which makes the folders.
mkdir -p state/shotmentor
service=$(sed -n "s#%S#$work/state#; s#%t#$work#; s#^ExecStart=##p" /usr/lib/systemd/user/shotmentor-camera.service)
# shellcheck disable=SC2086
serve shotmentor-camera $service
shotmentor-phone --connect "$url" list
shotmentor-phone --connect "$url" --json show 0 >preset.json
shotmentor-phone --connect "$url" picture 0 -o picture.jpg
all_requests
check
stop

say "a firmware engineer builds the example with pkg-config"
quietly apt-get install -y --no-install-recommends gcc g++ libc6-dev cmake make pkg-config
warnings="-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror"
# shellcheck disable=SC2046,SC2086
quietly cc -std=c11 $warnings /usr/share/doc/libshotmentor-dev/examples/host.c \
    $(pkg-config --cflags --libs shotmentor) -o example_host
serve example_host ./example_host unix:"$work/socket" picture.jpg
all_requests
check
stop

say "another one builds a host in C++17 with find_package"
quietly cmake -S "$here/consumer" -B consumer
quietly cmake --build consumer
serve consumer consumer/consumer "$work/socket-of-consumer"
all_requests
stop

say "they remove the packages"
quietly apt-get purge -y libshotmentor1 libshotmentor-dev shotmentor-tools
left=$(find / -xdev -iname '*shotmentor*' ! -path "$work/*" ! -path "$packages/*" ! -path '/proc/*')
[ -z "$left" ] || fail "the packages left behind: $left"
echo "ok: nothing of them is left"
