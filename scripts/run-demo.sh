#!/usr/bin/env bash
# Installs what is missing, builds korvo and runs it on the bundled demo sound set
# with the simulated bus, replaying the recorded demo session (demo/session.rec).
# Keys: digits then Enter play a command, Enter alone a random sound, +/- volume,
# m next sound set, q quits. Extra arguments are passed to korvo. The web service
# runs on port 31008; a restart asked for from the web page starts the daemon again.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
source scripts/configure.sh
# The same build directory and flags as scripts/test.sh; only the daemon is built here.
korvo_configure ""
cmake --build "$KORVO_BUILD_DIR" -j"$(nproc)" --target korvo
# va.ini (volume, sound set) is kept in the working directory: keep it out of the tree.
mkdir -p build/demo-run
cd build/demo-run
export KORVO_GPIO="${KORVO_GPIO:-sim}"
# Without a sound card SDL would fail to open audio; fall back to its silent driver.
if [ -z "${SDL_AUDIODRIVER:-}" ] && ! ls /dev/snd/pcm* >/dev/null 2>&1; then
  echo "run-demo: no sound card found, using SDL's dummy audio driver" >&2
  export SDL_AUDIODRIVER=dummy
fi
DEMO_ARGS=()
if [ -f ../../demo/session.rec ]; then DEMO_ARGS+=(-P ../../demo/session.rec); fi
PORT=31008
args=("$@")
for ((i = 0; i < ${#args[@]}; i++)); do
  if [ "${args[$i]}" = "-N" ] && [ $((i + 1)) -lt ${#args[@]} ]; then PORT="${args[$((i + 1))]}"; fi
done
echo "run-demo: web page at http://localhost:${PORT}/ (open it in a browser)" >&2
# Exit code 1 after a run of two seconds or more is the daemon's restart (the web page's
# restart or a saved configuration): start it again. A start-up failure ends the script.
while :; do
  started=$(date +%s%N)
  set +e
  ../src/app/korvo -H -d -l 3 -X ../../demo/dsp/velt-demo.xml "${DEMO_ARGS[@]}" "$@" ../../demo
  rc=$?
  set -e
  # (a restart comes 2 s after it was asked for; a failed start ends sooner)
  if [ "$rc" -ne 1 ] || [ $(($(date +%s%N) - started)) -lt 2000000000 ]; then exit "$rc"; fi
  echo "run-demo: korvo asked for a restart, starting it again" >&2
  # The replay belongs to the first run only.
  DEMO_ARGS=()
done
