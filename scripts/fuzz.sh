#!/usr/bin/env bash
# Builds the libFuzzer targets (the clang ASan+UBSan build, build-fuzz/) and runs each for
# FUZZ_SECONDS (default 60), FUZZ_PARALLEL (default 1) at a time, starting from its
# regression seeds in fuzz/seeds/<name>. New inputs go to fuzz/corpus-<name> (not in git);
# a crashing input is kept as build-fuzz/crashes/<target>-crash-*: copy it into
# fuzz/seeds/<name> once fixed. Exits non-zero if any target failed.
# Usage: scripts/fuzz.sh [--no-build] [target-name ...]
set -euo pipefail
cd "$(dirname "$0")/.."
build=1
if [ "${1:-}" = "--no-build" ]; then build=0; shift; fi
source scripts/configure.sh
if [ "$build" = 1 ]; then
  bash scripts/setup.sh
  korvo_configure_fuzz
  cmake --build "$KORVO_BUILD_DIR" -j"$(nproc)"
else
  KORVO_BUILD_DIR=build-fuzz
fi
BUILD="$KORVO_BUILD_DIR"
SECONDS_PER_TARGET="${FUZZ_SECONDS:-60}"
PARALLEL="${FUZZ_PARALLEL:-1}"
targets=("$@")
if [ "${#targets[@]}" -eq 0 ]; then
  mapfile -t targets < <(find "$BUILD/fuzz" -maxdepth 1 -type f -executable -name 'fuzz_*' -printf '%f\n' | sort)
fi
# FUZZ_SKIP: targets left out of this run (space-separated names), each said aloud.
if [ -n "${FUZZ_SKIP:-}" ]; then
  kept=()
  for t in "${targets[@]}"; do
    if [[ " $FUZZ_SKIP " == *" $t "* ]]; then echo "skip $t (FUZZ_SKIP)"; else kept+=("$t"); fi
  done
  targets=("${kept[@]}")
fi
[ "${#targets[@]}" -gt 0 ] || { echo "fuzz.sh: no fuzz targets in $BUILD/fuzz"; exit 1; }
mkdir -p "$BUILD/crashes"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}"

# Runs one target; its output goes to $BUILD/<target>.log, the verdict to stdout.
run_one() {
  local t="$1" name="${1#fuzz_}"
  local corpus="fuzz/corpus-$name" seeds="fuzz/seeds/$name"
  mkdir -p "$corpus"
  local dirs=("$corpus")
  [ -d "$seeds" ] && dirs+=("$seeds")
  if "$BUILD/fuzz/$t" -max_total_time="$SECONDS_PER_TARGET" -print_final_stats=1 -timeout=60 \
       -rss_limit_mb=2048 -artifact_prefix="$BUILD/crashes/$t-" "${dirs[@]}" >"$BUILD/$t.log" 2>&1; then
    echo "ok   $t: $(grep -o 'stat::number_of_executed_units: [0-9]*' "$BUILD/$t.log" | grep -o '[0-9]*$') runs"
  else
    echo "FAIL $t: see $BUILD/$t.log"; grep -m3 -E "ERROR|SUMMARY|Test unit written" "$BUILD/$t.log" || true
    return 1
  fi
}

status=0
pids=()
for t in "${targets[@]}"; do
  run_one "$t" & pids+=($!)
  if [ "${#pids[@]}" -ge "$PARALLEL" ]; then
    wait "${pids[0]}" || status=1
    pids=("${pids[@]:1}")
  fi
done
for p in "${pids[@]}"; do wait "$p" || status=1; done
exit $status
