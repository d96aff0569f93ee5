#!/usr/bin/env bash
# One cmake configuration for every script that builds: sourced by test.sh and
# run-demo.sh, so both use the same build directory with the same flags and a second
# script never recompiles what the first one built.
# Usage (sourced): korvo_configure [sanitizer]   -> sets KORVO_BUILD_DIR
korvo_configure() {
  local san="${1:-}"
  KORVO_BUILD_DIR="build${san:+-$san}"
  if command -v ccache >/dev/null 2>&1; then export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"; fi
  cmake -S . -B "$KORVO_BUILD_DIR" -DKORVO_WERROR=ON -DKORVO_SANITIZE="$san" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
}
