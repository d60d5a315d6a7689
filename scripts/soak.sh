#!/usr/bin/env bash
# Fault endurance on the virtual board: the USB camera, microphone and
# speaker are pulled out and put back while their nodes run, each cycle
# ending in capture and playback again; the open descriptors and resident
# memory are printed after the first cycles and at the end, and must not
# grow. `scripts/soak.sh` does 100 cycles (about seven minutes); the test
# command runs `scripts/soak.sh --cycles 3`.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${VESK_BUILD:-$top/build}
if [ ! -x "$build/bench/usb-soak" ]; then
  "$top/scripts/build.sh" "$build"
fi
exec "$build/bench/usb-soak" "$@"
