#!/usr/bin/env bash
# Real faults, not simulated ones: builds of the bundled example whose output folder runs
# out of room (a file-size limit on the process) and builds killed at random moments.
# Afterwards every output must be the complete old file, the complete new one, or absent.
# Usage: scripts/fault-check.sh [KILLS]   (default 200; needs the tools in build/)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
kills=${1:-200}
bin=$root/build
[ -x "$bin/fwforge" ] || scripts/build.sh --tools-only >/dev/null
example=$bin/examples/firmware
[ -f "$example/bootblk.bin" ] || { echo "fault-check: no example inputs in $example" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
cp "$example"/*.bin "$example"/*.rom "$example"/firmware.scr .
failures=0
fail() { echo "fault-check: FAILED: $*"; failures=$((failures + 1)); }

# The new outputs, and older ones that differ (the compatibility header changes the ROM).
"$bin/fwforge" . firmware.scr -c >/dev/null
for f in firmware.rom FWF01.int FWF01.inf; do cp "$f" "old.$f"; done
"$bin/fwforge" . firmware.scr >/dev/null
for f in firmware.rom FWF01.int FWF01.inf; do cp "$f" "new.$f"; done
cmp -s old.firmware.rom new.firmware.rom && { echo "fault-check: old and new ROM are the same" >&2; exit 1; }

# Each output is the old file, the new one, or absent; temporary files left by a killed
# run are counted and removed.
leftovers=0
check_outputs() {
    local what=$1 f
    for f in firmware.rom FWF01.int FWF01.inf; do
        [ -e "$f" ] || continue
        cmp -s "$f" "old.$f" || cmp -s "$f" "new.$f" || fail "$what: $f is neither the old nor the new file"
    done
    local temps
    temps=$(find . -maxdepth 1 -name '.*.tmp-*' | wc -l)
    leftovers=$((leftovers + temps))
    find . -maxdepth 1 -name '.*.tmp-*' -delete
}
restore_old() {
    for f in firmware.rom FWF01.int FWF01.inf; do cp "old.$f" "$f"; done
}

# 1. The output folder runs out of room: a file-size limit (1 KiB units) that lets the
#    boot block file through but not the ROM, then one that stops the boot block file.
#    With SIGXFSZ ignored the write fails and the build reports it; with the default
#    action the signal ends the process at the write.
for limit in 256:"Cannot write to ROM file" 16:"Cannot write to boot block file"; do
    size=${limit%%:*} message=${limit#*:}
    restore_old
    status=0
    out=$( (trap '' XFSZ; ulimit -f "$size"; exec "$bin/fwforge" . firmware.scr) ) || status=$?
    [ "$status" = 1 ] || fail "limit ${size}K: exit status $status, not 1"
    grep -qxF "FATAL ERROR: $message" <<<"$out" || fail "limit ${size}K: no \"$message\""
    cmp -s firmware.rom old.firmware.rom || fail "limit ${size}K: the old ROM was not kept"
    check_outputs "limit ${size}K"
    restore_old
    status=0
    # The shell reports the signal, to nowhere.
    { ( ulimit -f "$size"; exec "$bin/fwforge" . firmware.scr ) >/dev/null 2>&1 || status=$?; } 2>/dev/null
    [ "$status" != 0 ] || fail "limit ${size}K with SIGXFSZ: the build completed"
    cmp -s firmware.rom old.firmware.rom || fail "limit ${size}K with SIGXFSZ: the old ROM was not kept"
    check_outputs "limit ${size}K with SIGXFSZ"
done
# The other tools under the same limit keep an old output too.
cp new.firmware.rom image.rom
for run in "fwforge-lzh c firmware.rom out.bin" "fwforge-lzh d packed.bin out.bin" \
           "fwforge-inspect replace firmware.rom out.bin --module 0 --file post.bin" \
           "fwforge-inspect map firmware.rom --html out.bin"; do
    "$bin/fwforge-lzh" c post.bin packed.bin
    echo "old output" > out.bin
    status=0
    ( trap '' XFSZ; ulimit -f 4; exec $bin/$run ) >/dev/null 2>&1 || status=$?
    [ "$status" != 0 ] || fail "$run under a 4K limit: exit status 0"
    [ "$(cat out.bin)" = "old output" ] || fail "$run under a 4K limit: the old output was not kept"
    check_outputs "$run"
done
# extract under a limit that lets the small files through: each file it leaves is whole.
"$bin/fwforge-inspect" extract firmware.rom whole >/dev/null
status=0
( trap '' XFSZ; ulimit -f 40; exec "$bin/fwforge-inspect" extract firmware.rom cut ) >/dev/null 2>&1 || status=$?
[ "$status" != 0 ] || fail "extract under a 40K limit: exit status 0"
for f in cut/* cut/.[!.]*; do
    [ -e "$f" ] || continue
    cmp -s "$f" "whole/${f#cut/}" || fail "extract under a 40K limit: $f is not whole"
done

# 2. Builds killed at random moments of their run, starting from the old outputs or
#    from none. A run's length is measured first, so the moments cover all of it.
start=$(date +%s%N)
"$bin/fwforge" . firmware.scr >/dev/null
span=$(( ($(date +%s%N) - start) / 1000 ))  # microseconds
span=$(( span < 2000 ? 2000 : span ))
states=(old new absent)
declare -A seen=()
for ((i = 0; i < kills; i++)); do
    if ((i % 2)); then restore_old; else rm -f firmware.rom FWF01.int FWF01.inf; fi
    delay=$(( (RANDOM * 32768 + RANDOM) % (span * 12 / 10) ))
    { timeout -s KILL "$(printf '%d.%06d' $((delay / 1000000)) $((delay % 1000000)))" \
        "$bin/fwforge" . firmware.scr >/dev/null 2>&1 || true; } 2>/dev/null
    check_outputs "kill after ${delay}us"
    if [ ! -e firmware.rom ]; then state=absent
    elif cmp -s firmware.rom new.firmware.rom; then state=new
    else state=old; fi
    seen[$state]=$(( ${seen[$state]:-0} + 1 ))
done

echo "fault-check: file-size limits: 2 build limits x 2 signal actions, 5 other tool runs"
echo "fault-check: $kills builds killed at random moments within ${span}us:" \
     "ROM old ${seen[old]:-0}, new ${seen[new]:-0}, absent ${seen[absent]:-0};" \
     "$leftovers temporary files left by killed runs"
if ((failures)); then
    echo "fault-check: $failures failures"
    exit 1
fi
echo "fault-check: every output was the old file, the new one, or absent"
