#!/usr/bin/env bash
# Makes the guest that conversations on the air are tried in: Debian's kernel, and a root in memory with its Bluetooth
# modules, emulated controllers, Debian's Bluetooth daemon, Python, the desk and the conversations. Debian's packages
# are fetched and unpacked, not installed, and are kept for the next time.
#
# Usage: Air/make_guest.sh --fetch OUTPUT_FOLDER
#        Air/make_guest.sh BUILD_FOLDER OUTPUT_FOLDER
# Exit code 77 when the packages cannot be had.
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: Air/make_guest.sh --fetch|BUILD_FOLDER OUTPUT_FOLDER" >&2; exit 2; }
mkdir -p "$2"
output=$(realpath "$2")
[ "$1" = --fetch ] || build=$(realpath "$1")
cd "$(dirname "$0")/.."
packages=$output/packages tree=$output/tree root=$output/root

# The kernel's, in the order in which they need each other.
modules=(sha512_generic ctr drbg ecc ecdh_generic rfkill crc16 bluetooth rfcomm af_alg algif_hash algif_skcipher ecb
    cmac hci_vhci)
guest_packages=(busybox-static bluez bluez-test-tools dbus-bin dbus-daemon libdbus-1-3 libglib2.0-0 libreadline8
    libtinfo6 python3.11-minimal libpython3.11-minimal libpython3.11-stdlib)
programs=(bin/hciconfig usr/bin/bluetoothctl usr/bin/btmgmt usr/bin/btmon usr/bin/btvirt usr/bin/dbus-daemon
    usr/bin/dbus-send usr/bin/sdptool usr/libexec/bluetooth/bluetoothd)
python_extensions=(_ctypes _json _posixsubprocess _random _socket _struct array fcntl math mmap resource select termios)

# ---- Packages ------------------------------------------------------------------------------------------------------

kernel_package() { apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image/ { print $2; exit }'; }

download() {
    local kernel
    kernel=$(kernel_package)
    [ -n "$kernel" ] || return 1
    (cd "$packages" && apt-get download -qq "$kernel" "${guest_packages[@]}")
}

# Machines that have just been made do not know yet what packages there are.
learn_of_packages() {
    if [ "$(id -u)" -eq 0 ]; then
        apt-get update -qq
    else
        sudo -n apt-get update -qq
    fi
}

fetch_packages() {
    rm -rf "$packages" "$tree" "$tree.part"
    mkdir -p "$packages"
    if ! { download || { learn_of_packages && download; }; } >"$output/fetch.log" 2>&1; then
        echo "air: the guest's packages cannot be fetched: $(tail -n 1 "$output/fetch.log")" >&2
        exit 77
    fi
    local package
    for package in "$packages"/*.deb; do
        dpkg -x "$package" "$tree.part"
    done
    mv "$tree.part" "$tree"
    rm -rf "$packages"
}

[ -d "$tree" ] || fetch_packages
[ "$1" != --fetch ] || exit 0

# ---- The root ------------------------------------------------------------------------------------------------------

# Copies a program to its place in the guest, with the libraries that it needs.
install_program() {
    local from=$1 to=$root/$2 library name
    mkdir -p "$(dirname "$to")"
    cp -L "$from" "$to"
    { LD_LIBRARY_PATH=$tree/usr/lib/x86_64-linux-gnu:$tree/lib/x86_64-linux-gnu:$build/Src ldd "$from" || true; } |
        awk '$2 == "=>" { print $3 == "not" ? "not-found/" $1 : $3 } $1 ~ /^\// { print $1 }' >"$output/libraries"
    while read -r library; do
        name=$root/lib/$(basename "$library")
        [[ $library != *ld-linux* ]] || name=$root$library
        [ -e "$name" ] || { mkdir -p "$(dirname "$name")" && cp -L "$library" "$name"; }
    done <"$output/libraries"
}

install_modules() {
    local release=$1 module
    mkdir -p "$root/lib/modules"
    for module in "${modules[@]}"; do
        find "$tree/lib/modules/$release" -name "$module.ko" -exec cp {} "$root/lib/modules/" \;
        strip --strip-debug "$root/lib/modules/$module.ko"
    done
    printf '%s\n' "${modules[@]}" >"$root/lib/modules/order"
}

# Compiled ahead, because the guest is slow; without what belongs to windows, other languages and packages.
install_python() {
    local module file
    install_program "$tree/usr/bin/python3.11" bin/python3
    mkdir -p "$root/usr/lib/python3.11/lib-dynload"
    (cd "$tree/usr/lib/python3.11" && find . -name '*.py' -not -path './test/*' -not -path './idlelib/*' \
        -not -path './tkinter/*' -not -path './lib2to3/*' -not -path './pydoc_data/*' -not -path './ensurepip/*' \
        -not -path './distutils/*' -not -path './encodings/cp*' -not -path './asyncio/*' -not -path './xml/*' \
        -not -path './email/*' -not -path './multiprocessing/*' -not -path './wsgiref/*' -not -path './sqlite3/*' \
        -print0 | cpio --quiet -0pdm "$root/usr/lib/python3.11")
    PYTHONHOME=$tree/usr "$tree/usr/bin/python3.11" -m compileall -q -b "$root/usr/lib/python3.11"
    find "$root/usr/lib/python3.11" -name '*.py' -delete
    for module in "${python_extensions[@]}"; do
        for file in "$tree"/usr/lib/python3.11/lib-dynload/"$module".*.so; do
            [ ! -e "$file" ] || install_program "$file" "usr/lib/python3.11/lib-dynload/$(basename "$file")"
        done
    done
}

write_settings() {
    printf '%s\n' root:x:0:0:root:/root:/bin/sh user:x:1000:1000:user:/tmp:/bin/sh >"$root/etc/passwd"
    printf '%s\n' root:x:0: user:x:1000: >"$root/etc/group"
    echo 0123456789abcdef0123456789abcdef >"$root/etc/machine-id"
    printf '%s\n' '[General]' 'Name = guest' 'DiscoverableTimeout = 0' '[Policy]' 'AutoEnable = false' \
        >"$root/etc/bluetooth/main.conf"
    cp Air/bus.conf "$root/etc/bus.conf"
}

rm -rf "$root"
mkdir -p "$root"/{bin,lib64,etc/bluetooth,proc,sys,dev,tmp,run/dbus,root,var/lib/bluetooth,desk/Tests/Desk,desk/Air}
cp "$tree/bin/busybox" "$root/bin/busybox"
release=$(basename "$tree"/lib/modules/*)
install_modules "$release"
for program in "${programs[@]}"; do
    install_program "$tree/$program" "bin/$(basename "$program")"
done
install_python
write_settings
for program in shotmentor-camera shotmentor-phone; do
    install_program "$build/Desk/$program" "desk/programs/$program"
done
cp Tests/Desk/*.py "$root/desk/Tests/Desk/"
cp Air/*.py "$root/desk/Air/"
cp Air/init "$root/init"
chmod +x "$root/init"
cp "$tree/boot/vmlinuz-$release" "$output/vmlinuz"
(cd "$root" && find . -print0 | cpio --quiet -0oH newc | gzip -1) >"$output/initrd.gz"
