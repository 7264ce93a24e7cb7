#!/usr/bin/env bash
# Measures line coverage of src/ by the test suite (gcc --coverage and gcov) and
# prints one figure for all of src/, one per subsystem, and every file below 90%.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh test
cmake -S . -B build-cov -DCMAKE_BUILD_TYPE=Debug -DFWFORGE_BUILD_BENCH=OFF \
    -DCMAKE_CXX_FLAGS="--coverage -O0" -DCMAKE_EXE_LINKER_FLAGS="--coverage" >/dev/null
cmake --build build-cov -j "$(nproc)"
find build-cov -name '*.gcda' -delete
ctest --test-dir build-cov -j "$(nproc)" >/dev/null || echo "(some tests failed; coverage still reported)"

objroot=build-cov/CMakeFiles/fwforge_core.dir
report=$(mktemp)
trap 'rm -f "$report"' EXIT
for gcno in $(find "$objroot" -name '*.gcno'); do
    src=${gcno#"$objroot"/}
    src=${src%.gcno}
    # gcov -n prints "File '<name>'" and "Lines executed:P% of N" for each source file
    # the object covers; keep the object's own source file (headers are counted through
    # the sources that use them only where they hold code of their own).
    gcov -n "$gcno" 2>/dev/null |
        awk -v want="$PWD/$src" -v name="$src" '/^File /{f=$2; gsub(/\x27/,"",f)}
             /^Lines executed:/{split($2,a,":"); sub("%","",a[2]);
                                if (f == want) print name, a[2], $4}'
done | sort -u -k1,1 >"$report"

awk '{ hit = $2 * $3 / 100; split($1, p, "/"); sub_ = p[2];
       total += $3; covered += hit; st[sub_] += $3; sc[sub_] += hit;
       if ($2 < 90) low[$1] = sprintf("%5.1f%% of %d lines", $2, $3) }
     END { printf "Line coverage of src/: %.1f%% (%d of %d lines)\n", 100 * covered / total, covered, total;
           for (s in st) printf "  %-10s %5.1f%% of %d lines\n", s, 100 * sc[s] / st[s], st[s];
           n = 0; for (f in low) n++;
           if (n) { print "Files below 90%:"; for (f in low) printf "  %-45s %s\n", f, low[f] } }' "$report"
