#!/usr/bin/env bash
# The main job on the virtual board, from a fresh machine: set up, build, and
# run the appliance's display graph while the default scenario plugs a source
# in, changes its format and pulls it. The HDMI monitor shows the capture (the
# no-signal picture until the source comes), the television shows a still
# picture, and the board's line input plays on its output. What the screens
# showed is left as PNG files and what the output played as a WAV file, in
# /tmp/vesk-demo (VESK_DEMO_DIR).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=${VESK_DEMO_DIR:-/tmp/vesk-demo}
"$top/scripts/setup.sh"
"$top/scripts/build.sh" "$top/build"
mkdir -p "$out"
exec "$top/build/host/veskhost" run "$top/examples/graphs/display.json" \
  --sim "$top/examples/scenarios/default.json" --seconds 14 \
  --snapshot "0:$out/monitor-nosignal.png@1.5" --snapshot "0:$out/monitor-1080p.png@5" \
  --snapshot "0:$out/monitor-720p.png@10" --snapshot "2:$out/television.png" \
  --wav "1=$out/line.wav" "$@"
