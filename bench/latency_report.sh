#!/usr/bin/env bash
# Measures strobe-to-onset latency (a command strobed on the simulated bus -> the mixing
# pass that starts its sample) for audio buffers of 256, 512 and 1024 frames, idle and
# under an HTTP flood, and writes the figures to docs/latency.md (or the file given).
# Run it on the board to get the board's figures. About 4 minutes with the defaults.
# Usage: bench/latency_report.sh [output file]
#        COMMANDS=<per phase, default 1500> CLIENTS=<flooding clients, default 4>
set -euo pipefail
cd "$(dirname "$0")/.."
OUT="${1:-docs/latency.md}"
COMMANDS="${COMMANDS:-1500}"
CLIENTS="${CLIENTS:-4}"
source scripts/configure.sh
korvo_configure ""
cmake --build "$KORVO_BUILD_DIR" -j"$(nproc)" --target bench_onset_under_http >/dev/null
BENCH="$KORVO_BUILD_DIR/bench/bench_onset_under_http"

load_before="$(cut -d' ' -f1-3 /proc/loadavg)"
rows=()
for frames in 256 512 1024; do
  echo "latency: buffer $frames frames, $COMMANDS commands per phase" >&2
  output="$("$BENCH" "$COMMANDS" "$CLIENTS" "$frames")"
  echo "$output" >&2
  ms="$(sed -n 's/.*buffer [0-9]* frames = \([0-9.]*\) ms.*/\1/p' <<<"$output")"
  while IFS= read -r line; do
    case "$line" in
      *"without HTTP traffic"*) load="no HTTP traffic" ;;
      *"with HTTP flood"*) load="HTTP flood ($CLIENTS clients)" ;;
      *) continue ;;
    esac
    read -r heard sent p50 p99 p999 max < <(sed -E \
      's/.* ([0-9]+) of ([0-9]+) heard +p50 ([0-9.]+) +p99 ([0-9.]+) +p99\.9 ([0-9.]+) +max ([0-9.]+).*/\1 \2 \3 \4 \5 \6/' <<<"$line")
    rows+=("| $frames ($ms ms) | $load | $p50 | $p99 | $p999 | $max | $heard of $sent |")
  done <<<"$output"
done

cpu="$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)"
[ -n "$cpu" ] || cpu="$(sed -n 's/^Model[[:space:]]*: //p' /proc/cpuinfo | head -1)"
{
  echo "# Strobe-to-onset latency"
  echo
  echo "From a command strobed on the (simulated) sound bus to the mixing pass that starts its"
  echo "sample: interrupt thread, request ring, sound service thread, mixer. Figures are ratios"
  echo "to the length of one audio buffer: 1.0 means the sound started in the pass after the"
  echo "strobe, the earliest any command can. Target: p99.9 <= 1.05 with and without the flood."
  echo
  echo "Measured $(date -u +%Y-%m-%d) on ${cpu:-unknown CPU}, $(nproc) cores, $(uname -m); SDL disk driver in"
  echo "real time, 44.1 kHz, $COMMANDS commands per row at 30-50 a second; the flood is $CLIENTS"
  echo "clients requesting the web page's JSON routes as fast as they are answered. Load average"
  echo "of the machine before the run: $load_before (other work on the machine shows in the tails)."
  echo
  echo "| buffer frames | load | p50 | p99 | p99.9 | max | heard |"
  echo "|---|---|---|---|---|---|---|"
  printf '%s\n' "${rows[@]}"
  echo
  echo "Re-run on a board (after \`scripts/setup.sh\`): \`bench/latency_report.sh\`."
} >"$OUT"
echo "latency: written to $OUT" >&2
