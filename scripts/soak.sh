#!/usr/bin/env bash
# The soak tests (ctest label "soak"), kept out of scripts/test.sh for their length:
# the 5-minute stress soak under ThreadSanitizer (build-thread/) and under ASan+UBSan
# (build-address/), and the power-cut test on the ASan daemon. About 40 minutes.
# Usage: scripts/soak.sh [thread] [address]    (default both)
#        KORVO_SOAK_SECONDS=60 scripts/soak.sh  a shorter stress soak
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
source scripts/configure.sh
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:quarantine_size_mb=32}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"
sanitizers=("$@")
[ "${#sanitizers[@]}" -gt 0 ] || sanitizers=(thread address)
status=0
for san in "${sanitizers[@]}"; do
  korvo_configure "$san"
  cmake -S . -B "$KORVO_BUILD_DIR" -DKORVO_SOAK=ON >/dev/null
  cmake --build "$KORVO_BUILD_DIR" -j"$(nproc)" --target korvo test_soak
  echo "== soak under $san"
  (cd "$KORVO_BUILD_DIR" && ctest -L soak -V --timeout 7200) || status=1
done
exit $status
