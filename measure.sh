#!/usr/bin/env bash
# Installs what is missing, then measures what the library costs: sizes, stack, memory and instructions, which are
# counted, and times, those of the desk's camera as well. Writes Docs/measurements.json, measurements.md and
# measurements.svg.
#
# Usage: ./measure.sh           (about four minutes)
#        ./measure.sh --check   counts alone, and fails where a figure is worse than in Docs/measurements.json
set -euo pipefail
cd "$(dirname "$0")"

source tools/packages.sh
packages=("${library_packages[@]}" "${armhf_packages[@]}" "${count_packages[@]}")
case ${1-} in
"") command=write packages+=("${desk_packages[@]}" "${bench_packages[@]}") ;;
--check) command=check ;;
*)
    echo "measure.sh: no option '$1'; there is only --check" >&2
    exit 2
    ;;
esac
tools/install.sh "${packages[@]}"
exec python3 tools/measure.py "$command"
