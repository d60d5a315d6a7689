#!/usr/bin/env bash
# scripts/cross.sh armhf|arm64 [--board] [--unit]
#
# Builds the library, veskhost and the tests for 32-bit ARM (armhf, the
# board's userspace) or 64-bit ARM (arm64) and runs the test suite under
# qemu-user, printing ctest's summary. Installs what is missing (cross
# compiler, qemu-user, mmdebstrap) and makes the target's sysroot, a tree of
# extracted Debian 12 packages kept apart from the machine's own, unless it
# is there already.
#
#   --board  also build the board build (-DVESK_PLATFORM=board); it is built,
#            not run: it needs the board's media platform
#   --unit   run the unit tests only, not the integration tests
#
# Environment: VESK_SYSROOT (default /opt/vesk-sysroot/ARCH), VESK_CROSS_JOBS
# (build jobs, default nproc), VESK_CROSS_TEST_JOBS (ctest jobs, default nproc),
# VESK_DEBIAN_MIRROR (default: the first Debian URI of the machine's apt
# sources, deb822 or one-line, else Debian's default mirror). Build
# directories: build-ARCH and build-ARCH-board, each with its build.log.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)

arch=${1:-}
shift || true
board=0
unit=0
for a in "$@"; do
  case $a in
    --board) board=1 ;;
    --unit) unit=1 ;;
    *) echo "cross: unknown option $a" >&2; exit 2 ;;
  esac
done
case $arch in
  armhf) triple=arm-linux-gnueabihf; qemu=qemu-arm ;;
  arm64) triple=aarch64-linux-gnu; qemu=qemu-aarch64 ;;
  *) echo "usage: scripts/cross.sh armhf|arm64 [--board] [--unit]" >&2; exit 2 ;;
esac
sysroot=${VESK_SYSROOT:-/opt/vesk-sysroot/$arch}
jobs=${VESK_CROSS_JOBS:-$(nproc)}
test_jobs=${VESK_CROSS_TEST_JOBS:-$(nproc)}
# shellcheck source=scripts/lib.sh
. "$top/scripts/lib.sh"
SUDO=$(vesk_sudo)

stamp() { echo "== cross $arch: $* ($(date -u +%H:%M:%S))"; }

# ---- tools of this machine ------------------------------------------------
"$top/scripts/setup.sh"
vesk_install "the $arch cross compiler and emulator" "g++-$triple" qemu-user mmdebstrap \
  qtbase5-dev-tools

# ---- the target's sysroot -------------------------------------------------
# Extracted, not installed: no maintainer scripts run and no foreign
# architecture is added to this machine, so it works even when the target's
# package indexes are out of step with the machine's.
target_packages=qtbase5-dev,libqt5serialport5-dev,libavformat-dev,libavcodec-dev,libavutil-dev
target_packages+=,libavdevice-dev,libasound2-dev,libgtest-dev,libc6-dev,libstdc++-12-dev
made=$(cat "$sysroot/.vesk-packages" 2>/dev/null) || made=
if [ "$made" != "$target_packages" ]; then
  mirror=${VESK_DEBIAN_MIRROR:-$(vesk_debian_mirror)}
  stamp "making the sysroot $sysroot from $mirror (log: $VESK_LOG_DIR/sysroot-$arch.log)"
  start=$SECONDS
  $SUDO rm -rf "$sysroot" "$sysroot.tmp"
  $SUDO mkdir -p "$(dirname "$sysroot")" "$VESK_LOG_DIR"
  if ! $SUDO mmdebstrap --architectures="$arch" --variant=extract --include="$target_packages" \
    bookworm "$sysroot.tmp" "deb $mirror bookworm main" >"$VESK_LOG_DIR/sysroot-$arch.log" 2>&1; then
    echo "cross: mmdebstrap failed; the end of $VESK_LOG_DIR/sysroot-$arch.log:" >&2
    tail -n 25 "$VESK_LOG_DIR/sysroot-$arch.log" >&2
    exit 1
  fi
  echo "$target_packages" | $SUDO tee "$sysroot.tmp/.vesk-packages" >/dev/null
  $SUDO mv "$sysroot.tmp" "$sysroot"
  stamp "sysroot made in $((SECONDS - start)) s"
else
  stamp "reusing the sysroot $sysroot"
fi

# Extraction runs no maintainer scripts, so the alternatives that they would
# set up are made here: FFmpeg's speech recogniser reaches BLAS and LAPACK
# through them, and both the linker and the emulated loader look for them.
# The emulator looks up every absolute path in the sysroot first: device
# nodes there (/dev/ptmx without the /dev/pts that belongs to it) would shadow
# the machine's, so the sysroot has no /dev.
$SUDO rm -rf "$sysroot/dev"
for lib in blas/libblas.so.3 lapack/liblapack.so.3; do
  link=$sysroot/usr/lib/$triple/$(basename "$lib")
  if [ ! -e "$link" ] && [ -e "$sysroot/usr/lib/$triple/$lib" ]; then
    $SUDO ln -sfn "$lib" "$link"
  fi
done

# ---- build ------------------------------------------------------------------
build=$top/build-$arch
stamp "virtual-board build in $build"
VESK_BUILD_JOBS=$jobs VESK_SYSROOT=$sysroot vesk_build "$build" \
  -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchains/$arch.cmake" -DVESK_SYSROOT="$sysroot"

# ---- tests under the emulator -------------------------------------------------
# ctest runs each test program through CMAKE_CROSSCOMPILING_EMULATOR; the
# tests start veskhost through it as well.
stamp "tests under $qemu"
ctest_args=(--test-dir "$build" --output-on-failure -j "$test_jobs" --timeout 600)
((unit)) && ctest_args+=(-LE integration)
status=0
ctest "${ctest_args[@]}" || status=$?

if ((board)); then
  stamp "board build in $build-board"
  VESK_BUILD_JOBS=$jobs VESK_SYSROOT=$sysroot vesk_build "$build-board" \
    -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchains/$arch.cmake" -DVESK_SYSROOT="$sysroot" \
    -DVESK_PLATFORM=board
  readelf -h "$build-board/libVeskIO.so.1" | grep -E "Class|Machine"
fi
stamp "done (tests: $([ $status -eq 0 ] && echo passed || echo FAILED))"
exit $status
