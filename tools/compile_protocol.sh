#!/usr/bin/env bash
# Makes parsers of the protocol from Protocol/shotmentor.ksy, into build/protocol/LANGUAGE.
#
# Usage: tools/compile_protocol.sh [LANGUAGE...]
#   LANGUAGE  one that the Kaitai Struct compiler knows, or "all"; python and javascript if none is given
#
# The compiler and the runtime of JavaScript come by npm, in the versions of tools/kaitai/package-lock.json; the runtime
# of Python is the Debian package python3-kaitaistruct. Both are of one version, 0.10: parsers refuse an older runtime.
set -euo pipefail
cd "$(dirname "$0")/.."

for program in node npm; do
    if ! command -v "$program" >/dev/null; then
        echo "compile_protocol.sh: $program is missing: install node.js with npm, 18 or later" >&2
        exit 1
    fi
done

# They are installed beside what they make, once for each state of the lock, and by one of us at a time.
folder=build/protocol
mkdir -p "$folder"
exec 9>"$folder/busy"
flock 9
if ! cmp --quiet tools/kaitai/package-lock.json "$folder/installed.json"; then
    cp tools/kaitai/package.json tools/kaitai/package-lock.json "$folder"
    if ! npm ci --prefix "$folder" --no-audit --no-fund >"$folder/npm.log" 2>&1; then
        echo "compile_protocol.sh: npm cannot get kaitai-struct-compiler: it takes a network; see $folder/npm.log" >&2
        exit 1
    fi
    cp tools/kaitai/package-lock.json "$folder/installed.json"
fi

[ $# -gt 0 ] || set -- python javascript
NODE_PATH=$folder/node_modules node tools/kaitai/compile.cjs Protocol/shotmentor.ksy "$folder" "$@"
