#!/usr/bin/env bash
# Cross-builds FWFORGE for Windows with MinGW-w64 into build-win/ and checks it under wine:
# the bundled examples give the same ROM image, .int and .inf files as the Linux build
# (and the same console text, up to CR LF line ends and the backslash in the names the
# tool composes), and the whole test suite passes.
# Usage: scripts/windows-check.sh
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

scripts/deps.sh test windows
jobs=2

# Wine keeps its state in a private prefix under the build folder and needs no display.
export WINEPREFIX=$root/build-win/wine WINEARCH=win64 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY
mkdir -p build-win
# One wine server and one set of wine's own services for all runs, started here with
# their output to /dev/null: started by the first program under test instead, they
# would hold its output open and CTest would wait for them. The server's start is
# also the main cost of each program run.
wineserver --persistent 2>/dev/null || true
trap 'wineserver --kill >/dev/null 2>&1 || true' EXIT
wineboot --init >/dev/null 2>&1 </dev/null || true

# GoogleTest for the cross toolchain, from Debian's sources.
prefix=$root/build-win/prefix
toolchain=$root/cmake/mingw-w64.cmake
if [ ! -f "$prefix/lib/libgtest.a" ]; then
    cmake -S /usr/src/googletest -B build-win/googletest -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -Dgtest_disable_pthreads=OFF >/dev/null
    cmake --build build-win/googletest -j "$jobs" >/dev/null
    cmake --install build-win/googletest >/dev/null
fi

cmake -S . -B build-win/fwforge -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DFWFORGE_WIN_PREFIX="$prefix" \
    -DFWFORGE_BUILD_BENCH=OFF >/dev/null
cmake --build build-win/fwforge -j "$jobs"

# The Linux build of the same sources, for the comparison.
[ -f build/CMakeCache.txt ] || scripts/build.sh --tools-only >/dev/null
cmake --build build --target fwforge example_inputs example2_inputs -j "$jobs" >/dev/null

status=0
for example in firmware firmware2; do
    for side in linux windows; do
        work=build-win/examples/$side/$example
        rm -rf "$work"
        mkdir -p "$work/out"
        # The inputs come from the Linux build's generator: the same bytes for both.
        cp build/examples/$example/* "$work/" 2>/dev/null || true
        run=("$root/build/fwforge")
        [ $side = windows ] && run=(wine "$root/build-win/fwforge/fwforge.exe")
        if ! (cd "$work" && "${run[@]}" out "$example.scr" -v >console.txt); then
            echo "$example: the $side build failed:"; tail -n 3 "$work/console.txt"; status=1
        fi
    done
    linux=build-win/examples/linux/$example
    windows=build-win/examples/windows/$example
    rom=$(awk 'BEGIN{RS="\r\n"} /^\[bios\]/{b=1} b && /^file/{print $3; exit}' "$linux/$example.scr")
    for f in "$rom" $(cd "$linux" && ls out | sed 's|^|out/|'); do
        if [ -f "$linux/$f" ] && cmp -s "$linux/$f" "$windows/$f"; then
            echo "$example: $f identical ($(sha256sum <"$linux/$f" | cut -c1-16))"
        else
            echo "$example: $f DIFFERS between the Linux and the Windows build"; status=1
        fi
    done
    # Windows console text ends lines with CR LF and composes out\TAG.int and .inf.
    if diff <(sed 's/out\\/out\//g' <"$windows/console.txt" | tr -d '\r') "$linux/console.txt" >/dev/null; then
        echo "$example: console text identical up to CR LF and the composed names' separator"
    else
        echo "$example: console text DIFFERS"; status=1
        diff <(sed 's/out\\/out\//g' <"$windows/console.txt" | tr -d '\r') "$linux/console.txt" | head -20
    fi
done

# Cases that start from a bundled example take its inputs from the Linux build.
FWFORGE_EXAMPLE_INPUTS=$root/build ctest --test-dir build-win/fwforge -j "$jobs" --output-on-failure || status=1
[ $status -eq 0 ] && echo "Windows check: OK" || echo "Windows check: FAILED"
exit $status
