#!/usr/bin/env bash
# scripts/build.sh [DIR] [cmake options...]: configures and builds into DIR
# (default build/), the compiler's output in DIR/build.log.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/lib.sh
. "$top/scripts/lib.sh"
dir=${1:-$top/build}
shift || true
vesk_build "$dir" "$@"
