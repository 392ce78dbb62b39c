#!/usr/bin/env bash
# Makes the packages, and holds them to what they promise: the same bytes from another folder on another day, nothing
# that Debian's linter minds, and use in a minimal Debian that has nothing else of ours. The library for 32-bit ARM is
# installed into a root and has its conversation under qemu. Needs root, for it makes such a system.
#
# Usage: tools/check_packages.sh
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/packages.sh

if [ "$(id -u)" -ne 0 ]; then
    echo "check_packages.sh: run this as root: it makes a minimal Debian and enters it" >&2
    exit 2
fi
tools/install.sh "${packaging_packages[@]}" "${armhf_packages[@]}"

scratch=$(mktemp -d)
trap 'rm -rf --one-file-system "$scratch"' EXIT
log=$PWD/build/packages.log
mkdir -p build

say() { printf '==> %s\n' "$*"; }
fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# Usage: quietly COMMAND...; shows what it said when it fails
quietly() { "$@" >"$log" 2>&1 || { cat "$log" >&2; fail "$*"; }; }

SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct)}
export SOURCE_DATE_EPOCH

# A minimal Debian is fetched while the packages are built: from where this machine has its own packages, but without
# the updates, which a mirror that is just being filled breaks.
root=$scratch/root
mapfile -t mirror < <(apt-get indextargets --format '$(REPO_URI)' 'Identifier: Packages' 'Codename: bookworm')
mmdebstrap --mode=root --variant=minbase bookworm "$root" "${mirror[@]::1}" >"$scratch/debian.log" 2>&1 &
debian=$!

say "packages for this machine and for armhf"
quietly tools/package.sh release
quietly tools/package.sh armhf
(cd build/packages && sha256sum -- *.deb) >"$scratch/sums"
cat "$scratch/sums"

say "the same from another folder, 40 days later"
other="$scratch/a folder of another/depth"
mkdir -p "$other"
git ls-files -z | xargs -0 cp --parents --target-directory="$other"
(cd "$other" && quietly faketime -f +40d tools/package.sh release && quietly faketime -f +40d tools/package.sh armhf)
(cd "$other/build/packages" && sha256sum --quiet --check "$scratch/sums") || fail "the packages differ"
rm -rf "$other"
echo "ok: byte for byte the same"

say "Debian's linter"
lintian --allow-root --fail-on warning --display-level '>=warning' build/packages/*.deb
echo "ok: it minds nothing but what Packaging/debian/*.lintian-overrides explains"

say "a minimal Debian"
wait "$debian" || { cat "$scratch/debian.log" >&2; fail "mmdebstrap"; }
mkdir -p "$root/packages" "$root/tests"
cp build/packages/*_"$(dpkg --print-architecture)".deb "$root/packages"
cp -r Tests/Packaging/in_fresh_debian.sh Tests/Packaging/consumer "$root/tests"
cp /etc/resolv.conf "$root/etc/resolv.conf"
unshare --mount --pid --fork --mount-proc="$root/proc" chroot "$root" /tests/in_fresh_debian.sh /packages

say "32-bit ARM"
# The cross compiler's C library takes the place of the package libc6.
arm=$scratch/arm
mkdir -p "$arm"/{lib/arm-linux-gnueabihf,var/lib/dpkg/{info,updates,triggers}}
cp /usr/arm-linux-gnueabihf/lib/libc.so.6 "$arm/lib/arm-linux-gnueabihf"
cp /usr/arm-linux-gnueabihf/lib/ld-linux-armhf.so.3 "$arm/lib"
printf 'Package: libc6\nStatus: install ok installed\nArchitecture: armhf\nMulti-Arch: same\nVersion: %s\n%s\n\n' \
    "$(dpkg-query --show --showformat='${source:Version}' libc6-armhf-cross | sed 's/cross.*//')" \
    "Maintainer: the cross compiler" >"$arm/var/lib/dpkg/status"
quietly dpkg --root="$arm" --force-architecture -i build/packages/libshotmentor{1,-dev}_*_armhf.deb
quietly arm-linux-gnueabihf-gcc -std=c11 -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror \
    -I"$arm/usr/include/shotmentor" Examples/host.c -L"$arm/usr/lib/arm-linux-gnueabihf" -lshotmentor -o "$arm/host"
cp build/packages/amd64/Desk/SamplePictures/pictures.bin "$arm/picture.jpg"
phone=build/packages/amd64/Desk/shotmentor-phone
printf '' >"$scratch/host.out"
(cd "$arm" && exec qemu-arm-static -L "$arm" ./host unix:"$scratch/arm.sock" picture.jpg) \
    >"$scratch/host.out" 2>"$scratch/host.log" &
host=$!
for _ in $(seq 100); do
    ! grep -q listening "$scratch/host.out" || break
    sleep 0.1
done
"$phone" --connect unix:"$scratch/arm.sock" list
quietly "$phone" --connect unix:"$scratch/arm.sock" check
tail -n 1 "$log"
kill "$host"
echo "ok: the library for 32-bit ARM has had its conversation"
