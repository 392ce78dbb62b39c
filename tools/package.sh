#!/usr/bin/env bash
# Makes the Debian packages: libshotmentor1, libshotmentor-dev and shotmentor-tools, or for another machine the first
# two. The same commit gives the same bytes in any folder and on any day.
#
# Usage: tools/package.sh [release | armhf]
# They lie in build/packages/ then: sudo apt install ./build/packages/*_amd64.deb
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/packages.sh

preset=${1:-release}
packages=("${library_packages[@]}" "${packaging_packages[@]}" "${reference_packages[@]}")
case $preset in
release)
    packages+=("${desk_packages[@]}")
    machine=$(dpkg --print-architecture)
    options=(-DCMAKE_INSTALL_LIBDIR="lib/$(gcc -print-multiarch)")
    ;;
armhf)
    packages+=("${armhf_packages[@]}")
    machine=armhf
    options=(-DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf -DSHOTMENTOR_DEBIAN_ARCHITECTURE=armhf)
    ;;
*)
    echo "package.sh: no packages are made of '$preset'; choose from release, armhf" >&2
    exit 2
    ;;
esac
tools/install.sh "${packages[@]}"

if [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
    SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null) || {
        echo "package.sh: this is no git checkout; set SOURCE_DATE_EPOCH to the seconds of the packages' date" >&2
        exit 2
    }
fi
export SOURCE_DATE_EPOCH

build=build/packages/$machine
[ "${CI:-}" != true ] || options+=(-DCMAKE_COMPILE_WARNING_AS_ERROR=ON)
mkdir -p "$build"
cmake --preset "$preset" -B "$build" -DSHOTMENTOR_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_INSTALL_RPATH=ON \
    -DCMAKE_BUILD_RPATH_USE_ORIGIN=ON -DSHOTMENTOR_REFERENCE=ON "${options[@]}"
cmake --build "$build"
rm -rf "$build/_CPack_Packages" build/packages/*_"$machine".deb
(cd "$build" && umask 022 && cpack -B ..)
rm -rf build/packages/_CPack_Packages
sha256sum build/packages/*_"$machine".deb
