#!/usr/bin/env bash
# Installs every Debian package korvo needs to build, run and test.
# Idempotent and non-interactive; uses sudo only when not already root.
set -euo pipefail

PACKAGES=(
  # build tools
  build-essential cmake pkg-config git ca-certificates
  # libraries the daemon links
  libsdl2-dev libsdl2-mixer-dev zlib1g-dev libzip-dev
  libprotobuf-c-dev protobuf-c-compiler
  liblua5.2-dev libmicrohttpd-dev libdbus-1-dev libxml2-dev
  libasound2-dev libgpiod-dev
  # the mini display's font is generated from its misc-fixed 5x8 at build time
  xfonts-base
  # signature check of firmware updates
  libsodium-dev
  # tests, benchmarks and fuzzing
  libgtest-dev libgmock-dev libbenchmark-dev libcurl4-openssl-dev
  protobuf-compiler dbus clang
  # prompts and demo sounds are generated from these
  espeak-ng sox libsox-fmt-all vorbis-tools
)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

# The web UI's build (node, npm) and its browser tests (chromium): Debian's packages, but
# only where the command is missing, since a machine may carry another node whose own npm
# conflicts with Debian's.
command -v node >/dev/null 2>&1 || missing+=(nodejs)
command -v npm >/dev/null 2>&1 || missing+=(npm)
command -v chromium >/dev/null 2>&1 || missing+=(chromium)

if [ "${#missing[@]}" -eq 0 ]; then
  echo "setup: all ${#PACKAGES[@]} packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q </dev/null
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}" </dev/null
