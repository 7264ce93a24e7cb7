#!/usr/bin/env bash
# Renders the HTML map of ROM images with headless Chromium and checks that each page
# rendered and shows a box for every module.
# Usage: render_html_map.sh BINARY_DIR [IMAGE]
# Without IMAGE it renders the test binary's map fixture (every kind of item, split
# modules and a non-critical block among them) and the bundled examples as fwforge
# builds them. Exit 77 (skipped) when Chromium is not installed.
set -euo pipefail

bin=$1
tests_bin=$bin/tests/fwforge_tests
inspect_bin=$bin/fwforge-inspect

browser=$(command -v chromium || command -v chromium-browser || true)
if [ -z "$browser" ]; then
    echo "SKIPPED: chromium is not installed (scripts/deps.sh installs it)"
    exit 77
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

images=()
if [ $# -ge 2 ]; then
    images=("$2")
else
    FWFORGE_INSPECT_MAP_FIXTURE=$work/fixture.rom "$tests_bin" \
        --gtest_filter=InspectMap.WritesTheImageForTheBrowserCheck >/dev/null
    images+=("$work/fixture.rom")
    for name in firmware firmware2; do
        example=$bin/examples/$name
        if [ -f "$example/bootblk.bin" ]; then
            mkdir -p "$work/$name/out"
            cp "$example"/*.bin "$example"/*.rom "$example/$name.scr" "$work/$name/"
            (cd "$work/$name" && "$bin/fwforge" out "$name.scr" >/dev/null)
            images+=("$work/$name/$name.rom")
        fi
    done
fi

check_image() {
    local image=$1
    echo "== $image"
    "$inspect_bin" map "$image" --html "$work/map.html"
    modules=$("$inspect_bin" list "$image" --json | grep -c '"index": ' || true)
    if [ "$modules" -lt 1 ]; then
        echo "FAIL: the image lists no modules"
        exit 1
    fi

    run_browser() {
        local profile
        profile=$(mktemp -d "$work/profile.XXXXXX")
        timeout 120 "$browser" --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
            --disable-background-networking --disable-component-update --disable-sync \
            --user-data-dir="$profile" --enable-logging=stderr --v=0 "$@" \
            "file://$work/map.html"
}

run_browser --screenshot="$work/map.png" --window-size=1200,900 >/dev/null 2>"$work/shot.log"
run_browser --dump-dom >"$work/dom.html" 2>"$work/dom.log"

# The screenshot is a PNG of the window's size with more than one colour's worth of data.
if [ ! -s "$work/map.png" ]; then
    echo "FAIL: no screenshot"; cat "$work/shot.log"; exit 1
fi
if [ "$(head -c 8 "$work/map.png" | od -An -tx1 | tr -d ' \n')" != "89504e470d0a1a0a" ]; then
    echo "FAIL: the screenshot is not a PNG"; exit 1
fi
size=$(od -An -tu1 -j16 -N8 "$work/map.png" | tr -s ' ' | sed 's/^ //')
read -r w3 w2 w1 w0 h3 h2 h1 h0 <<<"$size"
width=$(( (w3 << 24) | (w2 << 16) | (w1 << 8) | w0 ))
height=$(( (h3 << 24) | (h2 << 16) | (h1 << 8) | h0 ))
if [ "$width" -ne 1200 ] || [ "$height" -ne 900 ]; then
    echo "FAIL: screenshot is ${width}x${height}, not 1200x900"; exit 1
fi
if [ "$(stat -c %s "$work/map.png")" -lt 5000 ]; then
    echo "FAIL: the screenshot looks blank"; exit 1
fi

# No page errors in the browser's console.
if grep -E 'CONSOLE|Uncaught|Failed to load resource' "$work/shot.log" "$work/dom.log"; then
    echo "FAIL: the page reported errors"; exit 1
fi

# The rendered DOM has the picture, the module table, and a box for every module.
grep -q 'id="picture"' "$work/dom.html" || { echo "FAIL: no picture in the DOM"; exit 1; }
grep -q 'id="modules"' "$work/dom.html" || { echo "FAIL: no module table in the DOM"; exit 1; }
boxes=$(grep -o 'class="box module[^"]*" data-module="[0-9]*"' "$work/dom.html" |
        sed 's/.*data-module="//' | sort -u | wc -l)
rows=$(grep -c '^<tr><td>' "$work/dom.html" || true)
echo "modules: $modules, module boxes: $boxes, table rows: $rows"
if [ "$boxes" -ne "$modules" ]; then
    echo "FAIL: $modules modules but $boxes module boxes"; exit 1
fi
echo "PASS: the HTML map rendered with a box for every module"
}

for image in "${images[@]}"; do
    check_image "$image"
done
