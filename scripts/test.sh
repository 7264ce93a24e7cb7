#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite.
# Usage: scripts/test.sh [--sanitize]   (--sanitize: AddressSanitizer + UBSan build)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh test
scripts/build.sh "$@"
dir=build
[ "${1:-}" = "--sanitize" ] && dir=build-asan
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)"
