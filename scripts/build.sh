#!/usr/bin/env bash
# scripts/build.sh [DIR] [cmake options...]: configures and builds into DIR
# (default build/).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$top/build}
shift || true
cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$dir" --parallel "$(nproc)"
