#!/usr/bin/env bash
# Installs what is missing, builds the desk, and lets phones of all kinds use its camera under faults: phones that lie,
# stall, vanish, half leave and come in floods, confirmations that come late or never, refused memory, kill -9, a full
# disk, system calls that fail, files that are no files, knobs that are turned and talk that nobody reads.
#
# Usage: ./soak.sh MINUTES [--seed N]
#   --seed N  takes the chances of an earlier run, which has printed its seed
# Exit code 1 when a confirmed preset was lost, memory grew, or a phone took more than Desk/Camera/Budgets.h allows; one
# line says what, and the stores are kept. The disk is filled only as root, who can mount a small one.
# Tests/Desk/soak.py says more.
set -euo pipefail
cd "$(dirname "$0")"
source tools/packages.sh

if ! [[ "$*" =~ ^[1-9][0-9]*(\ --seed\ [0-9]+)?$ ]]; then
    echo "usage: ./soak.sh MINUTES [--seed N], MINUTES a positive whole number" >&2
    exit 2
fi

tools/install.sh "${library_packages[@]}" "${desk_packages[@]}" python3
tools/configure.sh release
cmake --build --preset release --target shotmentor-camera shotmentor-phone system_calls

export SHOTMENTOR_CAMERA=$PWD/build/release/Desk/shotmentor-camera
export SHOTMENTOR_PHONE=$PWD/build/release/Desk/shotmentor-phone
export SHOTMENTOR_SYSTEM_CALLS=$PWD/build/release/Tests/Desk/libsystem_calls.so
export PYTHONDONTWRITEBYTECODE=1
exec python3 Tests/Desk/soak.py "$@"
