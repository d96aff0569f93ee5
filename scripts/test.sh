#!/usr/bin/env bash
# Installs what is missing, builds korvo with warnings as errors and runs every test.
# Usage: scripts/test.sh            normal build (build/)
#        KORVO_SANITIZE=address scripts/test.sh   ASan+UBSan build (build-address/)
#        KORVO_SANITIZE=thread  scripts/test.sh   TSan build (build-thread/)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

source scripts/configure.sh

korvo_configure "${KORVO_SANITIZE:-}"
BUILD="$KORVO_BUILD_DIR"
JOBS="$(nproc)"
cmake --build "$BUILD" -j"$JOBS"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"
cd "$BUILD"
ctest --output-on-failure -j"$JOBS" --timeout 300
