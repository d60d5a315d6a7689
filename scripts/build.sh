#!/usr/bin/env bash
# scripts/build.sh [DIR] [cmake options...]: configures and builds into DIR
# (default build/).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$top/build}
shift || true
launcher=()
# Worktrees and repeated runs share compiled objects when ccache is there.
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" "$@" >/dev/null
cmake --build "$dir" --parallel "$(nproc)"
