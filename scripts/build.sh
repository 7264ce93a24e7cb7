#!/usr/bin/env bash
# Configures and builds FWFORGE. Usage: scripts/build.sh [--sanitize]
# The normal build goes to build/, the sanitizer build to build-asan/.
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build
flags=()
if [ "${1:-}" = "--sanitize" ]; then
    dir=build-asan
    flags=(-DFWFORGE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug)
fi
cmake -S . -B "$dir" "${flags[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)"
