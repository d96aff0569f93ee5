#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for FUZZ_SECONDS (default 60).
# Exits non-zero if any target finds a crash. Usage: scripts/fuzz.sh [target-name ...]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
SECONDS_PER_TARGET="${FUZZ_SECONDS:-60}"
BUILD=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$BUILD" -DKORVO_FUZZ=ON -DKORVO_TESTS=OFF -DKORVO_BENCH=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD" -j"$(nproc)" >/dev/null
targets=("$@")
if [ "${#targets[@]}" -eq 0 ]; then
  mapfile -t targets < <(find "$BUILD/fuzz" -maxdepth 1 -type f -executable -name 'fuzz_*' -printf '%f\n' | sort)
fi
status=0
for t in "${targets[@]}"; do
  corpus="fuzz/corpus-${t#fuzz_}"
  mkdir -p "$corpus"
  seeds="fuzz/seeds/${t#fuzz_}"
  [ -d "$seeds" ] || seeds=""
  echo "== $t for ${SECONDS_PER_TARGET}s"
  if ! "$BUILD/fuzz/$t" -max_total_time="$SECONDS_PER_TARGET" -print_final_stats=1 "$corpus" $seeds 2>"$BUILD/$t.log"; then
    echo "!! $t found a problem: see $BUILD/$t.log"; status=1
  else
    grep -E 'stat::number_of_executed_units' "$BUILD/$t.log" || true
  fi
done
exit $status
