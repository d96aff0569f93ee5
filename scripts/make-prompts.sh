#!/usr/bin/env bash
# Regenerates the system prompts in sounds/ : spoken English from espeak-ng, a chime for
# "boot" and a tick for "click", all mono 22050 Hz Ogg Vorbis at a low quality setting
# so the whole directory stays small. Run from anywhere; needs espeak-ng, sox, oggenc.
set -euo pipefail
cd "$(dirname "$0")/.."
out=sounds
mkdir -p "$out"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

VOICE=${VOICE:-en-us}
SPEED=${SPEED:-150}

# speak <file name without .ogg> <text>
speak() {
  espeak-ng -v "$VOICE" -s "$SPEED" -w "$tmp/raw.wav" "$2"
  # Trim the silence espeak leaves around the words, normalise, mono 22050 Hz.
  sox "$tmp/raw.wav" -r 22050 -c 1 -b 16 "$tmp/$1.wav" silence 1 0.02 0.5% reverse silence 1 0.02 0.5% reverse norm -1
  oggenc -Q -q 0 -o "$out/$1.ogg" "$tmp/$1.wav"
}

# synth <file name> <sox synth arguments...>
synth() {
  local name=$1; shift
  sox -n -r 22050 -c 1 -b 16 "$tmp/$name.wav" "$@"
  oggenc -Q -q 0 -o "$out/$name.ogg" "$tmp/$name.wav"
}

# A rising three-note chime, then the word.
sox -n -r 22050 -c 1 "$tmp/c1.wav" synth 0.18 sine 660 fade 0 0.18 0.12 vol 0.5
sox -n -r 22050 -c 1 "$tmp/c2.wav" synth 0.18 sine 880 fade 0 0.18 0.12 vol 0.5
sox -n -r 22050 -c 1 "$tmp/c3.wav" synth 0.40 sine 1320 fade 0 0.40 0.35 vol 0.5
sox "$tmp/c1.wav" "$tmp/c2.wav" "$tmp/c3.wav" -b 16 "$tmp/boot.wav"
oggenc -Q -q 0 -o "$out/boot.ogg" "$tmp/boot.wav"
synth click synth 0.03 square 2000 fade 0 0.03 0.025 vol 0.6

speak ready "ready"
speak mode "mode"
speak dataeast "data east"
speak wpc "W P C"
speak dcs "D C S"
speak whitestar "white star"
speak version "version"
speak point "point"
speak r "R"
speak c "C"
digits=(zero one two three four five six seven eight nine ten)
for n in 0 1 2 3 4 5 6 7 8 9 10; do speak "$n" "${digits[$n]}"; done
speak preloading "preloading samples"
speak soundset "sound set"
speak switching-soundset "switching sound set"
speak shuffle "shuffle mode"
speak no-soundset "no sound set found"
speak please-install-sound "please install a sound set"
speak config-missing "configuration missing"

du -ch "$out"/*.ogg | tail -n 1
