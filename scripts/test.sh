#!/usr/bin/env bash
# Installs what is missing, builds korvo and runs every test: the g++ build's tests
# (warnings as errors), the same tests under ASan+UBSan (one clang build that also holds
# the libFuzzer targets), then each fuzz target for FUZZ_SECONDS (default 30), two at once.
# The soak tests (label "soak": power cut, 5-minute stress) are not part of it:
# scripts/soak.sh runs them.
# Usage: scripts/test.sh [normal] [asan] [fuzz]   the named stages only (default: all three)
#        KORVO_SANITIZE=address|thread scripts/test.sh   one g++ sanitizer build's tests
#                                                        (build-address/, build-thread/)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
source scripts/configure.sh
JOBS="$(nproc)"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"

stage_time() { echo "== test.sh: $1 done after $((SECONDS / 60)) min $((SECONDS % 60)) s"; }

run_ctest() {
  (cd "$1" && ctest --output-on-failure -j"$JOBS" --timeout 300 -LE soak)
}

if [ -n "${KORVO_SANITIZE:-}" ]; then
  korvo_configure "$KORVO_SANITIZE"
  cmake --build "$KORVO_BUILD_DIR" -j"$JOBS"
  run_ctest "$KORVO_BUILD_DIR"
  exit 0
fi

stages=("$@")
[ "${#stages[@]}" -gt 0 ] || stages=(normal asan fuzz)
want() { [[ " ${stages[*]} " == *" $1 "* ]]; }

if want normal; then
  korvo_configure ""
  cmake --build "$KORVO_BUILD_DIR" -j"$JOBS"
  run_ctest "$KORVO_BUILD_DIR"
  stage_time "g++ build and its tests"
fi
if want asan || want fuzz; then
  korvo_configure_fuzz
  cmake --build "$KORVO_BUILD_DIR" -j"$JOBS"
  stage_time "clang ASan+UBSan build"
fi
if want asan; then
  run_ctest "$KORVO_BUILD_DIR"
  stage_time "ASan+UBSan tests"
fi
if want fuzz; then
  # FUZZ_SKIP="fuzz_a fuzz_b" leaves targets out of a run (each is named in the output).
  FUZZ_SKIP="${FUZZ_SKIP:-}" FUZZ_SECONDS="${FUZZ_SECONDS:-30}" FUZZ_PARALLEL="${FUZZ_PARALLEL:-2}" \
    bash scripts/fuzz.sh --no-build
  stage_time "fuzzing"
fi
