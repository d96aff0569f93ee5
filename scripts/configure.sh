#!/usr/bin/env bash
# One cmake configuration per build directory for every script that builds: sourced by
# test.sh, run-demo.sh and fuzz.sh, so they share build directories with the same flags
# and a second script never recompiles what the first one built.
# Usage (sourced): korvo_configure [sanitizer]   -> sets KORVO_BUILD_DIR (g++, -Werror)
#                  korvo_configure_fuzz          -> sets KORVO_BUILD_DIR (clang, ASan+UBSan,
#                                                   the tests and the libFuzzer targets)
korvo_configure() {
  local san="${1:-}"
  KORVO_BUILD_DIR="build${san:+-$san}"
  if command -v ccache >/dev/null 2>&1; then export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"; fi
  cmake -S . -B "$KORVO_BUILD_DIR" -DKORVO_WERROR=ON -DKORVO_SANITIZE="$san" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
}

# One clang build serves both the sanitizer test run and the fuzz targets: every library
# carries ASan+UBSan and the fuzzer's coverage, the test binaries link them like the fuzz
# targets do, so CI compiles the sources once for both. Warnings are errors in the g++
# build; clang's own extra warnings do not stop this one.
korvo_configure_fuzz() {
  KORVO_BUILD_DIR="build-fuzz"
  if command -v ccache >/dev/null 2>&1; then export CCACHE_BASEDIR="${CCACHE_BASEDIR:-$PWD}"; fi
  CC=clang CXX=clang++ cmake -S . -B "$KORVO_BUILD_DIR" -DKORVO_SANITIZE=address -DKORVO_FUZZ=ON \
    -DKORVO_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only" >/dev/null
}
