#!/usr/bin/env bash
# Installs the Debian packages that are not installed yet. Does nothing, and needs no rights, when all are there.
#
# Usage: tools/install.sh PACKAGE...
set -euo pipefail

missing=()
for package in "$@"; do
    status=$(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null || true)
    [ "$status" = installed ] || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "install.sh: these packages are missing: ${missing[*]}; run this as root, or install sudo" >&2
        exit 1
    fi
    as_root=(sudo)
fi
echo "==> installing ${missing[*]}"
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
