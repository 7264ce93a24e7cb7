#!/usr/bin/env bash
# Checks the HTML map of fwforge-inspect in headless Chromium: builds a 16 MB image of
# 200 modules and the bundled examples, and checks where the page draws them and how it
# zooms. Screenshots of the first screen and of a zoomed module go to build/browser/.
# Usage: scripts/browser-check.sh
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh tools browser
scripts/build.sh --tools-only >/dev/null
(cd tests/browser && npm ci --no-audit --no-fund --loglevel=error)
node tests/browser/map_check.mjs --bin build --out build/browser
