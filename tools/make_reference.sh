#!/usr/bin/env bash
# Makes the reference of the public headers, as pages for a browser. Fails where something in them is not documented.
#
# Usage: tools/make_reference.sh FOLDER [HEADERS]
#   FOLDER   where the pages go; what is there goes away
#   HEADERS  the folder of the headers, Src unless given
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
[ $# -ge 1 ] || { echo "usage: tools/make_reference.sh FOLDER [HEADERS]" >&2; exit 2; }
if ! command -v doxygen >/dev/null; then
    echo "make_reference.sh: doxygen is missing; install the package doxygen" >&2
    exit 1
fi
headers=$(realpath "${2:-$here/../Src}")
version=$(sed -n 's/^project(shotmentor VERSION \([0-9.]*\).*/\1/p' "$here/../CMakeLists.txt")
[ -n "$version" ] || { echo "make_reference.sh: CMakeLists.txt names no version" >&2; exit 1; }
mkdir -p "$1"
find "$1" -mindepth 1 -delete

made=$(mktemp -d)
trap 'rm -rf "$made"' EXIT
mkdir "$made/made"
IFS=. read -r major minor patch <<<"$version"
sed -e "s/@PROJECT_VERSION@/$version/; s/@PROJECT_VERSION_MAJOR@/$major/; s/@PROJECT_VERSION_MINOR@/$minor/" \
    -e "s/@PROJECT_VERSION_PATCH@/$patch/" "$headers/ADE_ShotMentor_Version.h.in" >"$made/made/ADE_ShotMentor_Version.h"
# Doxygen cuts a path at its blanks: it gets others.
ln -s "$headers" "$made/headers"
ln -s "$here/document_headers.py" "$made/filter"
ln -s "$(realpath "$1")" "$made/output"

faults=$(REFERENCE_HEADERS=$made/headers REFERENCE_MADE=$made/made REFERENCE_OUTPUT=$made/output \
    REFERENCE_VERSION=$version REFERENCE_FILTER=$made/filter \
    doxygen "$here/../Docs/Doxyfile" 2>&1) || faults+=$'\n'"doxygen ended with $?"
if [ -n "$faults" ]; then
    printf 'make_reference.sh: the headers have gaps in their documentation:\n%s\n' "$faults" >&2
    rm -f "$1/index.html" # what has gaps is not done
    exit 1
fi
