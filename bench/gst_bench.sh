#!/usr/bin/env bash
# Times lumetsoverlay in 1080p pipelines of 600 buffers against identity (the
# floor: making and passing the buffers) and against textoverlay drawing one
# comparable outlined line; prints frames per second and each element's cost
# per frame above the floor, best of RUNS (3) runs. Speed is measured here,
# never asserted.
#   bench/gst_bench.sh [BUILD_DIR]    (default build/release, plugin in BUILD_DIR/gst)
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build/release}"
export GST_PLUGIN_PATH="$PWD/$build/gst"
export GST_REGISTRY="$PWD/$build/gst/registry-bench.bin"
frames=600
runs="${RUNS:-3}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# One static bold line with a 2-pixel outline, laid out at 1080p, for both.
line="Breaking: one outlined line of text over the picture"
cat >"$work/line.json" <<EOF
{"size": [1920, 1080], "duration": 60, "subtitles": [{"id": "line", "at": [40, 960],
 "items": [{"text": {"content": "$line", "at": [0, 0], "clip": [0, 0, 1840, 72],
 "style": {"fontSize": 42, "bold": true, "outline": true, "outlineWidth": 2}}, "plays": 0}]}]}
EOF

# Best wall-clock seconds of `videotestsrc ! ELEMENT ! fakesink`, as
# gst-launch reports from PLAYING to EOS; the arguments are the element's
# words, each one argument of gst-launch (which keeps its spaces).
seconds() {
  local best=""
  for _ in $(seq "$runs"); do
    local t
    t=$(gst-launch-1.0 videotestsrc num-buffers="$frames" ! \
          video/x-raw,format=BGRx,width=1920,height=1080,framerate=30/1 ! "$@" ! fakesink 2>&1 |
        sed -n 's/^Execution ended after \([0-9]*\):\([0-9]*\):\([0-9.]*\)$/\1 \2 \3/p' |
        awk '{ printf "%.4f", $1 * 3600 + $2 * 60 + $3 }')
    if [ -z "$t" ]; then
      echo "gst_bench: the pipeline with '$*' did not run" >&2
      exit 1
    fi
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then
      best="$t"
    fi
  done
  echo "$best"
}

floor=$(seconds identity)
printf '%-34s %9s %10s %16s\n' "1920x1080 BGRx, $frames buffers" "fps" "ms/frame" "element ms/frame"
report() {
  local name="$1" t
  shift
  t=$(seconds "$@")
  awk -v name="$name" -v t="$t" -v floor="$floor" -v n="$frames" 'BEGIN {
    printf "%-34s %9.1f %10.3f %16.3f\n", name, n / t, 1000 * t / n, 1000 * (t - floor) / n }'
}
report "identity (the floor)" identity
report "lumetsoverlay, one outlined line" lumetsoverlay "scene=$work/line.json"
report "textoverlay, one outlined line" textoverlay "text=$line" "font-desc=Sans Bold 32" auto-resize=false \
  valignment=bottom halignment=left shaded-background=false draw-shadow=false draw-outline=true
report "lumetsoverlay, docs/examples/ticker" lumetsoverlay "scene=$PWD/docs/examples/ticker.json"
