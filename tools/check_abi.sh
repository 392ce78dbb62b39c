#!/usr/bin/env bash
# Holds what a built host relies on to its description in ABI/: the symbols of the shared object and their types, the
# services that it imports, the records that travel. What a host would notice needs a version that says so: a new second
# number for an addition, a new first number for everything else.
#
# Usage: tools/check_abi.sh [--write] [amd64 | armhf]...
#   --write  describes the library as it is now: to be called when a version is released, and the files committed
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/packages.sh

write=false
machines=()
for argument in "$@"; do
    case $argument in
    --write) write=true ;;
    amd64 | armhf) machines+=("$argument") ;;
    *)
        echo "check_abi.sh: no machine '$argument'; choose from amd64, armhf" >&2
        exit 2
        ;;
    esac
done
[ ${#machines[@]} -gt 0 ] || machines=(amd64 armhf)
packages=("${library_packages[@]}" "${packaging_packages[@]}")
[[ " ${machines[*]} " != *" armhf "* ]] || packages+=("${armhf_packages[@]}")
tools/install.sh "${packages[@]}"

described=$(cat ABI/version)
version=$(sed -n 's/^project(shotmentor VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
IFS=. read -r major minor _ <<<"$version"
IFS=. read -r described_major described_minor _ <<<"$described"

# Usage: build_objects MACHINE; makes libshotmentor.so and outside.so with what the compiler knows of their types
build_objects() {
    local build=build/abi/$1 preset=release compiler=gcc
    [ "$1" = amd64 ] || { preset=armhf compiler=arm-linux-gnueabihf-gcc; }
    cmake --preset "$preset" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DSHOTMENTOR_TESTS=OFF -DSHOTMENTOR_DESK=OFF
    cmake --build "$build" --target shotmentor
    "$compiler" -std=c11 -g -shared -fPIC -fdebug-prefix-map="$PWD"=. -ISrc ABI/outside.c -o "$build/outside.so"
    cp "$build/Src/libshotmentor.so" "$build/libshotmentor.so"
}

# Usage: fail WHAT NEEDED
fail() {
    echo "FAILED: $1 since $described, and the version is still $version. Undo it, or make it $2 in CMakeLists.txt" >&2
    exit 1
}

# Usage: compare MACHINE OBJECT
compare() {
    local old=ABI/$2.$1.abi new=build/abi/$1/$2.so report=build/abi/$1/$2.report
    local differs=(abidiff --headers-dir2 Src "$old" "$new")
    ! "${differs[@]}" >"$report" || return 0
    cat "$report"
    if ! "${differs[@]}" --no-added-syms >/dev/null; then
        [ "$major" -gt "$described_major" ] || fail "$2 on $1 breaks hosts that were built" "$((major + 1)).0.0"
    elif [ "$major" -eq "$described_major" ] && [ "$minor" -eq "$described_minor" ]; then
        fail "$2 on $1 has additions" "$major.$((minor + 1)).0"
    fi
}

for machine in "${machines[@]}"; do
    mkdir -p "build/abi/$machine"
    build_objects "$machine" >"build/abi/$machine/log" 2>&1 || { cat "build/abi/$machine/log"; exit 1; }
    for object in libshotmentor outside; do
        if [ "$write" = true ]; then
            abidw --no-comp-dir-path --no-corpus-path --headers-dir Src --out-file "ABI/$object.$machine.abi" \
                "build/abi/$machine/$object.so"
        else
            compare "$machine" "$object"
        fi
    done
done
if [ "$write" = true ]; then
    echo "$version" >ABI/version
    echo "ok: ABI/ describes version $version; commit it"
else
    echo "ok: version $version keeps the promises of $described to built hosts (${machines[*]})"
fi
