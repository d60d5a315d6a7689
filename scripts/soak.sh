#!/usr/bin/env bash
# scripts/soak.sh [--minutes M | --cycles N] [appliance-soak options]: the
# whole appliance on the virtual board under faults that repeat in cycles of
# 45 s, against real peers on 127.0.0.1 (ffmpeg, scripts/rtsp-server.py);
# memory, descriptors and threads must not grow and every fault must be
# recovered from. Default: ten minutes. Output in /tmp/vesk-soak (--out DIR):
# samples.csv, nodes.csv, checks.csv, soak.png. VESK_BUILD names the build
# (default build/; the test command runs it in build-asan).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=${VESK_BUILD:-$top/build}
if [ ! -x "$build/bench/appliance-soak" ]; then
  "$top/scripts/build.sh" "$build"
fi
exec "$build/bench/appliance-soak" "$@"
