#!/usr/bin/env bash
# lumets filter on 300 frames of 1280 x 720 with the demo scene, on the CPU
# and with --gpu: frames per second, and the library's share of the time
# against reading, converting and writing frames (from --stats).
#
#   bench/filter_bench.sh [path/to/lumets]
set -euo pipefail
cd "$(dirname "$0")/.."
lumets="${1:-build/bench/tools/lumets}"
frames="$(mktemp)"
trap 'rm -f "$frames"' EXIT
ffmpeg -nostdin -v error -f lavfi -i testsrc2=s=1280x720:r=30 -frames:v 300 \
  -f rawvideo -pix_fmt bgr24 -y "$frames"
for path in "" "--gpu"; do
  echo "== filter ${path:-(CPU)}"
  for run in 1 2 3; do
    "$lumets" filter data/demo/scene.json --size 1280x720 --fps 30 --stats $path \
      < "$frames" > /dev/null
  done
done
