#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a given time.
# Usage: scripts/fuzz.sh [SECONDS_PER_TARGET] [TARGET...]
# Seeds come from tests/fuzz/corpus/<target>/; what a run finds goes to a scratch copy,
# so the committed corpus stays as it is. Fails on any crash, leak or sanitizer report.
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
status=0
for t in "${targets[@]}"; do
    corpus="$scratch/$t"
    mkdir -p "$corpus"
    [ -d "tests/fuzz/corpus/$t" ] && cp -r "tests/fuzz/corpus/$t/." "$corpus/"
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
