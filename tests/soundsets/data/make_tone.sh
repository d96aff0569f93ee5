#!/usr/bin/env bash
# Regenerates the tiny audio fixture of the sound set tests (needs sox with Ogg Vorbis).
set -euo pipefail
cd "$(dirname "$0")"
sox -n -r 22050 -c 1 tone.ogg synth 0.25 sine 440 vol 0.5
