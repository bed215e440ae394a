#!/usr/bin/env bash
# Installs the Debian packages the project builds against. Idempotent: the
# package lists are refreshed once, and only packages that are missing are
# installed, so a second run on a ready machine touches nothing.
set -euo pipefail

packages=(
  build-essential cmake git pkg-config
  nlohmann-json3-dev libtsl-ordered-map-dev libpcre2-dev libspdlog-dev
  libsqlite3-dev libssl-dev libcli11-dev libmimalloc-dev libutfcpp-dev
  libgtest-dev libgmock-dev libbenchmark-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
echo "setup: installing ${missing[*]}" >&2
"${sudo_cmd[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
