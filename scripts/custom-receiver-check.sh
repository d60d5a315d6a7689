#!/usr/bin/env bash
# scripts/custom-receiver-check.sh PREFIX WORKDIR
# Builds examples/custom-receiver against the VeskIO installed under PREFIX
# ("/usr" for the Debian packages) twice, through pkg-config and through
# find_package(VeskIO), and has PREFIX's veskhost load each build with
# examples/boards/custom.json: the plug-in's 1920x1080 at 30 must show as the
# interface's signal.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
prefix=${1:?PREFIX}
work=${2:?WORKDIR}
cmake=${CMAKE:-cmake}
rm -rf "$work"
mkdir -p "$work/pkg-config" "$work/cmake"

# The .pc file lies in lib/ or, for a Debian prefix, lib/<multiarch>/.
pcdir=$(dirname "$(find "$prefix/lib" -name veskio.pc -print -quit)")
[ -n "$pcdir" ] || { echo "no veskio.pc under $prefix/lib" >&2; exit 1; }

echo "== pkg-config ($pcdir): $(PKG_CONFIG_PATH=$pcdir pkg-config --modversion veskio)"
PKG_CONFIG_PATH=$pcdir make -s -C "$top/examples/custom-receiver" OUT="$work/pkg-config"

echo "== find_package(VeskIO) under $prefix"
"$cmake" -S "$top/examples/custom-receiver" -B "$work/cmake/build" \
  -DCMAKE_PREFIX_PATH="$prefix" >"$work/cmake/configure.log"
"$cmake" --build "$work/cmake/build" >"$work/cmake/build.log"
cp "$work/cmake/build/custom-receiver.so" "$work/cmake/"

status=0
for way in pkg-config cmake; do
  # The board names the plug-in by file name; the loader finds it on the
  # library path.
  rc=0
  out=$(LD_LIBRARY_PATH="$work/$way" "$prefix/bin/veskhost" signals \
    --board "$top/examples/boards/custom.json" --json --seconds 1.5 2>"$work/$way/stderr") || rc=$?
  echo "$way: $out"
  if [ $rc != 0 ] || ! grep -q '"interface":"cam1".*"avalible":true.*"framerate":30,"height":1080.*"width":1920' \
    <<<"$out"; then
    echo "$way: the plug-in's signal did not show (veskhost exit status $rc)" >&2
    cat "$work/$way/stderr" >&2
    status=1
  fi
done
exit $status
