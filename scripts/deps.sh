#!/usr/bin/env bash
# Installs what a task needs, and only what is missing.
# Usage: scripts/deps.sh GROUP...
#   build    compiler, CMake and make: enough to build fwforge and run the examples
#   tools    build, and two header packages for the helper tools: CLI11 for the command
#            lines of fwforge-lzh and fwforge-inspect, nlohmann/json for the inspector's JSON
#   test     the test suite: the tools, GoogleTest, python3 for the case driver, gzip for
#            the benchmark, and two lh5 decoders of others (lhasa, p7zip-full) that check
#            the compressed streams
#   windows  the cross toolchain MinGW-w64, GoogleTest's sources to build for it, and wine
#            to run the Windows programs (scripts/windows-check.sh)
#   fuzz     clang and its sanitizer runtime for the fuzz targets, and the header packages
#   browser  headless Chromium, Node.js and npm for the check of the HTML map
#   package  the packages and their check: the tools' build, git for the commit in the
#            version, dpkg-dev and file (CPack finds the Debian package's dependencies
#            with them), groff to render the manual pages, man and bash-completion to try
#            the installed package
set -euo pipefail

declare -A group=(
    [build]="cmake g++ make"
    [tools]="cmake g++ make libcli11-dev nlohmann-json3-dev"
    [test]="cmake g++ make libcli11-dev nlohmann-json3-dev libgtest-dev python3 gzip lhasa p7zip-full"
    [windows]="cmake make g++-mingw-w64-x86-64-posix googletest wine wine64"
    [fuzz]="cmake make clang libclang-rt-dev libcli11-dev nlohmann-json3-dev"
    [browser]="chromium nodejs npm"
    [package]="cmake g++ make libcli11-dev nlohmann-json3-dev git dpkg-dev file groff-base man-db bash-completion"
)

packages=()
for g in "$@"; do
    [ -n "${group[$g]+set}" ] || { echo "deps.sh: unknown group '$g' (known: ${!group[*]})" >&2; exit 2; }
    read -r -a list <<<"${group[$g]}"
    packages+=("${list[@]}")
done

missing=()
# A program already on the PATH counts as installed: a Node.js package that brings its
# own npm conflicts with Debian's npm package.
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' &&
        ! command -v "$p" >/dev/null; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
