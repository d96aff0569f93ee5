#!/usr/bin/env bash
# Regenerates the demo sound set in demo/velt-demo (PINSOUND layout) from sox synthesis
# and espeak-ng: two music loops, effects, voices, a jingle and a single. Mono 22050 Hz
# Ogg Vorbis at a low quality setting keeps it small. Needs espeak-ng, sox, oggenc.
#
# Command ids: music 1 (main theme), 2 (multiball theme); sfx 10..14; voice 20..22;
# jingle 30; single 40.
set -euo pipefail
cd "$(dirname "$0")/.."
set_dir=demo/velt-demo
rm -rf "$set_dir"
mkdir -p "$set_dir"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

enc() { # enc <wav> <dir> <file name without .ogg>
  mkdir -p "$set_dir/$2"
  oggenc -Q -q 0 -o "$set_dir/$2/$3.ogg" "$1"
}
note() { # note <out.wav> <seconds> <sox synth arguments...>
  local out=$1 len=$2; shift 2
  sox -n -r 22050 -c 1 -b 16 "$out" synth "$len" "$@"
}
speak() { # speak <dir> <name> <text>
  espeak-ng -v en-us -s 140 -w "$tmp/raw.wav" "$3"
  sox "$tmp/raw.wav" -r 22050 -c 1 -b 16 "$tmp/v.wav" silence 1 0.02 0.5% reverse silence 1 0.02 0.5% reverse norm -1
  enc "$tmp/v.wav" "$1" "$2"
}

# Music: a bass line under a pad, four bars that loop seamlessly.
music() { # music <dir> <name> <root Hz> <tempo factor>
  local root=$3 f=$4 parts=()
  local i=0
  for mult in 1 1.335 1.498 1.335; do
    local hz
    hz=$(echo "$root * $mult" | bc -l)
    note "$tmp/b$i.wav" "$f" pluck "$hz" pluck "$(echo "$hz * 2" | bc -l)" fade 0 "$f" 0.05 vol 0.6
    note "$tmp/p$i.wav" "$f" sine "$(echo "$hz * 3" | bc -l)" sine "$(echo "$hz * 3.78" | bc -l)" fade 0.05 "$f" 0.1 vol 0.25
    sox -m "$tmp/b$i.wav" "$tmp/p$i.wav" -b 16 "$tmp/bar$i.wav"
    parts+=("$tmp/bar$i.wav")
    i=$((i + 1))
  done
  sox "${parts[@]}" "${parts[@]}" -b 16 "$tmp/m.wav" norm -3
  enc "$tmp/m.wav" "$1" "$2"
}
music music/1-main_theme theme 110 1.0
music music/2-multiball multiball 147 0.6

# Effects.
note "$tmp/s.wav" 0.25 sine 1800-300 fade 0 0.25 0.2 vol 0.8;            enc "$tmp/s.wav" sfx/10-bumper bumper
note "$tmp/s.wav" 0.6 square 200-2000 fade 0 0.6 0.3 vol 0.4;           enc "$tmp/s.wav" sfx/11-ramp ramp
note "$tmp/s.wav" 0.4 pinknoise fade 0 0.4 0.35 vol 0.7;                 enc "$tmp/s.wav" sfx/12-slingshot sling
note "$tmp/s.wav" 0.15 sine 2500 fade 0 0.15 0.1 vol 0.7;                enc "$tmp/s.wav" sfx/13-rollover a
note "$tmp/s.wav" 0.15 sine 3000 fade 0 0.15 0.1 vol 0.7;                enc "$tmp/s.wav" sfx/13-rollover b
note "$tmp/s.wav" 1.0 brownnoise fade 0 1.0 0.8 vol 0.9;                 enc "$tmp/s.wav" sfx/14-drain drain

# Voices.
speak voice/20-welcome welcome "Welcome to velt audio"
speak voice/21-jackpot jackpot "Jackpot!"
speak voice/22-extra_ball extraball "Extra ball"

# A jingle (fanfare) and a single (game over).
for n in 0 1 2; do
  note "$tmp/j$n.wav" 0.2 square "$(echo "523.25 * (1.26 ^ $n)" | bc -l)" fade 0 0.2 0.05 vol 0.4
done
note "$tmp/j3.wav" 0.7 square 1046.5 square 1318.5 fade 0 0.7 0.4 vol 0.4
sox "$tmp/j0.wav" "$tmp/j1.wav" "$tmp/j2.wav" "$tmp/j3.wav" -b 16 "$tmp/j.wav"
enc "$tmp/j.wav" jingle/30-fanfare fanfare
note "$tmp/g0.wav" 0.4 triangle 392 fade 0 0.4 0.1 vol 0.6
note "$tmp/g1.wav" 0.4 triangle 330 fade 0 0.4 0.1 vol 0.6
note "$tmp/g2.wav" 0.9 triangle 262 fade 0 0.9 0.6 vol 0.6
sox "$tmp/g0.wav" "$tmp/g1.wav" "$tmp/g2.wav" -b 16 "$tmp/g.wav"
enc "$tmp/g.wav" single/40-game_over gameover

# The voice plays a little louder (gain.txt is 0..30, 15 = neutral).
echo 18 > "$set_dir/voice/21-jackpot/gain.txt"
cat > "$set_dir/config.ini" <<'INI'
# demo set: music ducks under voices and jingles
ducking_voice=50
ducking_jingle=20
ducking_sfx=85
INI
du -sh "$set_dir"
