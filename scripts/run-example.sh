#!/usr/bin/env bash
# Installs what is missing, builds FWFORGE with the bundled example's inputs, and runs it
# on the example build script. Usage: scripts/run-example.sh [firmware|firmware2] [-v] [-c]
set -euo pipefail
cd "$(dirname "$0")/.."

example=${1:-firmware}
shift || true

scripts/deps.sh build
scripts/build.sh --tools-only

# The build generated the inputs next to a copy of the script in the build tree.
work=build/examples/$example
[ -f "$work/$example.scr" ] || { echo "No example named $example"; exit 1; }
mkdir -p "$work/out"
echo "Running: fwforge out $example.scr $*   (in $work)"
status=0
(cd "$work" && ../../fwforge out "$example.scr" "$@") || status=$?
echo
echo "Exit status: $status"
if [ "$status" -eq 0 ]; then
    echo "ROM image:          $work/$(awk 'BEGIN{RS="\r\n"} /^\[bios\]/{b=1} b && /^file/{print $3; exit}' "$work/$example.scr")"
    echo "Boot block, info:   $(ls "$work"/out/* | tr '\n' ' ')"
fi
exit "$status"
