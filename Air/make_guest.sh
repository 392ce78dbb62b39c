#!/usr/bin/env bash
# Makes the guest that a run on the air boots: Debian's kernel, and a small root in memory with its Bluetooth modules,
# two emulated controllers, Python, the desk and its conversations. Debian's packages are fetched and unpacked, not
# installed.
#
# Usage: Air/make_guest.sh BUILD_FOLDER OUTPUT_FOLDER
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:?usage: Air/make_guest.sh BUILD_FOLDER OUTPUT_FOLDER}")
mkdir -p "${2:?usage: Air/make_guest.sh BUILD_FOLDER OUTPUT_FOLDER}"
output=$(realpath "$2")
packages=$output/packages tree=$output/tree root=$output/root

modules=(sha512_generic ctr drbg ecc ecdh_generic rfkill crc16 bluetooth rfcomm af_alg algif_hash algif_skcipher ecb cmac
    hci_vhci)
python_modules=(_ctypes _socket select math fcntl termios resource array mmap _struct _random _json _posixsubprocess)

fetch_packages() {
    local kernel
    kernel=$(apt-cache depends linux-image-amd64 | awk '/Depends: linux-image/ { print $2; exit }')
    local wanted=("$kernel" busybox-static bluez bluez-test-tools dbus-daemon libdbus-1-3 python3.11-minimal
        libpython3.11-minimal libpython3.11-stdlib)
    mkdir -p "$packages"
    (cd "$packages" && apt-get download "${wanted[@]}")
    local package
    for package in "$packages"/*.deb; do
        dpkg -x "$package" "$tree"
    done
}

# Copies a program to its place in the guest, with the libraries that it needs.
install_program() {
    local from=$1 to=$root/$2 library
    mkdir -p "$(dirname "$to")"
    cp -L "$from" "$to"
    { LD_LIBRARY_PATH=$tree/usr/lib/x86_64-linux-gnu:$tree/lib/x86_64-linux-gnu:$build/Src ldd "$from" || true; } |
        awk '$2 == "=>" { print $3 } $1 ~ /^\// { print $1 }' >"$output/libraries"
    while read -r library; do
        local name=$root/lib/$(basename "$library")
        [[ $library != *ld-linux* ]] || name=$root$library
        [ -e "$name" ] || { mkdir -p "$(dirname "$name")" && cp -L "$library" "$name"; }
    done <"$output/libraries"
}

[ -d "$tree" ] || fetch_packages
rm -rf "$root"
mkdir -p "$root"/{bin,lib/modules,lib64,etc,proc,sys,dev,tmp,run,root,usr/lib}
cp "$tree/bin/busybox" "$root/bin/busybox"
release=$(basename "$tree"/lib/modules/*)
for module in "${modules[@]}"; do
    file=$(find "$tree/lib/modules/$release" -name "$module.ko" | head -1)
    [ -z "$file" ] || { cp "$file" "$root/lib/modules/" && strip --strip-debug "$root/lib/modules/$module.ko"; }
done
printf '%s\n' "${modules[@]}" >"$root/lib/modules/order"
install_program "$tree/usr/bin/btvirt" bin/btvirt
install_program "$tree/usr/bin/btmon" bin/btmon
install_program "$tree/bin/hciconfig" bin/hciconfig
install_program "$tree/usr/bin/python3.11" bin/python3
for program in shotmentor-camera shotmentor-camera-lab shotmentor-phone; do
    install_program "$build/Desk/$program" "desk/$program"
done

# Python's own modules; those for tests, packages and windows are left out.
mkdir -p "$root/usr/lib/python3.11/lib-dynload"
(cd "$tree/usr/lib/python3.11" && find . -name '*.py' -not -path './test/*' -not -path './idlelib/*' \
    -not -path './tkinter/*' -not -path './lib2to3/*' -not -path './pydoc_data/*' -not -path './ensurepip/*' \
    -not -path './distutils/*' -print0 | cpio --quiet -0pdm "$root/usr/lib/python3.11")
for module in "${python_modules[@]}"; do
    for file in "$tree"/usr/lib/python3.11/lib-dynload/"$module".*.so; do
        [ ! -e "$file" ] || install_program "$file" "usr/lib/python3.11/lib-dynload/$(basename "$file")"
    done
done
mkdir -p "$root/desk/Tests"
cp -r Tests/Desk/*.py Air/*.py "$root/desk/Tests/"
cp Air/init "$root/init"
chmod +x "$root/init"
cp "$tree/boot/vmlinuz-$release" "$output/vmlinuz"
(cd "$root" && find . -print0 | cpio --quiet -0oH newc | gzip -1) >"$output/initrd.gz"
