#!/usr/bin/env bash
# Installs the Debian packages the project builds against, and the npm
# packages of the MCP and browser tests. Idempotent: the package lists are refreshed once,
# and only packages that are missing are installed, so a second run on a
# ready machine touches nothing.
set -euo pipefail

packages=(
  build-essential cmake git pkg-config
  nlohmann-json3-dev libtsl-ordered-map-dev libpcre2-dev libspdlog-dev
  libsqlite3-dev libssl-dev libcli11-dev libmimalloc-dev libutfcpp-dev libsimdjson-dev
  libgtest-dev libgmock-dev libbenchmark-dev clang clang-format libclang-rt-14-dev lld
  postgresql libpq-dev libyaml-cpp-dev
  libcpp-httplib-dev libcmark-gfm-dev libcmark-gfm-extensions-dev chromium
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

# The MCP server's end-to-end test drives it with the official SDK client on
# Node. A node and npm already on the machine are kept, whatever their origin:
# Debian's nodejs is older than some machines' own.
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  missing+=(nodejs npm)
fi

if [ "${#missing[@]}" -ne 0 ]; then
  sudo_cmd=()
  if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
  echo "setup: installing ${missing[*]}" >&2
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# The tests' npm packages, exactly as locked, when missing or older than the
# lock file (npm ci rewrites node_modules/.package-lock.json): the MCP SDK
# client, and puppeteer-core for the browser test, which drives Debian's
# chromium and downloads no browser of its own.
for npm_tests in mcp browser; do
  dir="$(dirname "$0")/../tests/$npm_tests"
  if [ ! -f "$dir/node_modules/.package-lock.json" ] ||
     [ "$dir/package-lock.json" -nt "$dir/node_modules/.package-lock.json" ]; then
    echo "setup: installing the $npm_tests test's npm packages" >&2
    (cd "$dir" && PUPPETEER_SKIP_DOWNLOAD=1 npm ci --no-audit --no-fund --loglevel=error >/dev/null)
  fi
done
