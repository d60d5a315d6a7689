#!/usr/bin/env bash
# The main job on the virtual board, from a fresh machine: set up, build, and
# run the capture graph while the default scenario plugs a source in, changes
# its format and pulls it, and the board's line input plays on its output;
# what the output played is left in /tmp/vesk-demo.wav (VESK_DEMO_WAV).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/setup.sh"
"$top/scripts/build.sh" "$top/build"
exec "$top/build/host/veskhost" run "$top/examples/graphs/capture.json" \
  --sim "$top/examples/scenarios/default.json" --seconds 14 \
  --wav "1=${VESK_DEMO_WAV:-/tmp/vesk-demo.wav}" "$@"
