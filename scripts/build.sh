#!/usr/bin/env bash
# Configures and builds FWFORGE. Usage: scripts/build.sh [--sanitize | --tools-only]
# The normal build (tools, tests, benchmarks, examples) goes to build/, the sanitizer
# build to build-asan/. --tools-only builds the three tools and the examples into build/
# and needs nothing beyond the compiler, CMake and make.
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build
flags=(-DFWFORGE_BUILD_TESTS=ON -DFWFORGE_BUILD_BENCH=ON)
case "${1:-}" in
    --sanitize) dir=build-asan; flags+=(-DFWFORGE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug) ;;
    --tools-only) flags=(-DFWFORGE_BUILD_TESTS=OFF -DFWFORGE_BUILD_BENCH=OFF) ;;
    "") ;;
    *) echo "usage: scripts/build.sh [--sanitize | --tools-only]" >&2; exit 2 ;;
esac
cmake -S . -B "$dir" "${flags[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)"
