#!/usr/bin/env bash
# Makes the packages, installing what is missing:
#   scripts/package.sh deb   build-pkg/fwforge_<version>_<arch>.deb
#   scripts/package.sh zip   build-pkg-win/fwforge-<version>-win64.zip (MinGW-w64 cross build)
# <version> is the project's version and the commit built, e.g. 3.33+g0123456789.
# Prints the path of the package as its last line.
set -euo pipefail
cd "$(dirname "$0")/.."

flags=(-DFWFORGE_PACKAGE=ON -DFWFORGE_BUILD_TESTS=OFF -DFWFORGE_BUILD_BENCH=OFF)
case "${1:-}" in
    deb)
        scripts/deps.sh package
        dir=build-pkg
        ;;
    zip)
        scripts/deps.sh package windows
        dir=build-pkg-win
        flags+=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64.cmake")
        ;;
    *)
        echo "usage: scripts/package.sh deb|zip" >&2
        exit 2
        ;;
esac

cmake -S . -B "$dir" "${flags[@]}" >/dev/null
cmake --build "$dir" -j 2
# Only this run's package is left in the folder.
rm -f "$dir"/fwforge[_-]*.deb "$dir"/fwforge[_-]*.zip
(cd "$dir" && cpack -G "$([ "$1" = deb ] && echo DEB || echo ZIP)" >/dev/null)
ls "$dir"/fwforge[_-]*."$1"
