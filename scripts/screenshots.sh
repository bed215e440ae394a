#!/usr/bin/env bash
# Takes the README's screenshots of `kodrune-wiki serve` (a page with a stale
# section, the history) with the browser test's headless chromium, into docs/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
[ -f build/release/CMakeCache.txt ] || bash scripts/run.sh --configure-only
cmake --build build/release --target kodrune-wiki -j "$(nproc 2>/dev/null || echo 2)"
KODRUNE_WIKI_EXE="$PWD/build/release/kodrune-wiki" node tests/browser/screenshots.mjs docs
ls -l docs/screenshot-page.png docs/screenshot-history.png
