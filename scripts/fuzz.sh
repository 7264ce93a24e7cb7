#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a given time.
# Usage: scripts/fuzz.sh [SECONDS_PER_TARGET] [TARGET...]
# Each run seeds the targets afresh from the bundled examples (nothing binary is committed):
# their scripts, with the build target's input names, two small images built from them
# (16- and 32-bit links), some of their inputs, and those compressed by fwforge-lzh. What
# a run finds stays in a scratch folder. Fails on any crash, leak or sanitizer report.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-30}
shift || true

scripts/deps.sh fuzz
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DFWFORGE_FUZZ=ON -DFWFORGE_BUILD_TESTS=OFF \
    -DFWFORGE_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j "$(nproc)"

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for f in build-fuzz/tests/fuzz/*_fuzz; do targets+=("$(basename "$f" _fuzz)"); done
fi

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The example scripts as the build target's work folder has them: no comments (it skips
# scripts with a slash), the boot block bb.bin, the ROM hole hole.bin, modules m1 and m2.
seed_script() {
    awk '{sub(/\r$/, "")} /^\/\//{next} /^\[/{s = $0} /^file *=/{
        if (s == "[init]") $0 = "file = bb.bin"; else if (s == "[romhole]") $0 = "file = hole.bin"
        else if (s == "[module]") $0 = "file = m" (n++ % 2 + 1) ".bin"} {printf "%s\r\n", $0}' "$1"
}
mkdir -p "$scratch"/{build,plan,script_reader,inspect,replace,compress_roundtrip,lzh_decoder,make/out}
for ex in firmware firmware2; do
    seed_script "build-fuzz/examples/$ex/$ex.scr" >"$scratch/build/$ex.scr"
    cp "$scratch/build/$ex.scr" "$scratch/script_reader/"
    cp "$scratch/build/$ex.scr" "$scratch/plan/"
    # The same modules in a quarter of the image: a plan that fails and looks for changes.
    sed 's/^size = 00080000/size = 00020000/' "$scratch/build/$ex.scr" >"$scratch/plan/$ex-small.scr"
done
# Two 64 KB images of four modules, one of them compressed and one in the Extended Boot
# Block, with 16-bit links and with 32-bit links.
inputs=build-fuzz/examples/firmware
head -c 16384 "$inputs/bootblk.bin" >"$scratch/make/bb.bin"
cp "$inputs"/{pmode,recovery,acpi,strings}.bin "$scratch/make/"
for links in 16 32; do
    {
        printf '%s\r\n' '[init]' 'file = bb.bin' '[bios]' "file = image$links.rom" \
            'size = 00010000' 'bbsize = 00004000' 'nvramsize = 00001000' 'maxebbsize = 00001000' \
            'tag = SEED' '[romimage]' 'version = 1'
        [ $links = 32 ] && printf 'force32 = yes\r\n'
        for m in 01:pmode:no 02:acpi:no 03:strings:yes; do
            IFS=: read -r id name packed <<<"$m"
            printf '%s\r\n' '[module]' "moduleid = $id" "file = $name.bin" \
                "destn = f000:0000" "compressed = $packed"
        done
        printf '%s\r\n' '[module]' 'moduleid = 04' 'file = recovery.bin' \
            'destn = 2000:0000' 'compressed = no' 'romregion = ebb'
    } >"$scratch/make/image$links.scr"
    (cd "$scratch/make" && "$OLDPWD/build-fuzz/fwforge" out "image$links.scr" >/dev/null)
    cp "$scratch/make/image$links.rom" "$scratch/inspect/"
    cp "$scratch/make/image$links.rom" "$scratch/replace/"
done
for name in strings acpi; do
    head -c 3000 "$inputs/$name.bin" >"$scratch/compress_roundtrip/$name.bin"
    build-fuzz/fwforge-lzh c "$inputs/$name.bin" "$scratch/lzh_decoder/$name.lzh" >/dev/null
done
head -c 3000 /dev/zero >"$scratch/compress_roundtrip/zeros.bin"

status=0
for t in "${targets[@]}"; do
    corpus="$scratch/$t"
    mkdir -p "$corpus"
    echo "== fuzzing $t for ${seconds}s"
    if ! (cd "$scratch" && "$OLDPWD/build-fuzz/tests/fuzz/${t}_fuzz" -max_total_time="$seconds" \
            -timeout=30 -rss_limit_mb=3072 -max_len=65536 -print_final_stats=1 \
            "$corpus" 2>"$scratch/$t.log"); then
        tail -n 60 "$scratch/$t.log"
        echo "== $t: FAILED (reproducer in the log above)"
        status=1
    else
        grep -E '^stat::number_of_executed_units|^#[0-9]+.*DONE' "$scratch/$t.log" | tail -n 2 || true
        echo "== $t: no finding"
    fi
done
exit $status
