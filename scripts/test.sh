#!/usr/bin/env bash
# Set up, build and pass the whole suite: the normal build, then the same
# suite built with AddressSanitizer and UndefinedBehaviorSanitizer and a
# few minutes of the appliance soak in that build, the armhf
# cross build with the whole suite under emulation and the board build, then a
# short run of every fuzz target.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc)
"$top/scripts/setup.sh"

echo "== normal build"
"$top/scripts/build.sh" "$top/build"
ctest --test-dir "$top/build" --output-on-failure -j "$jobs" --timeout 300

echo "== sanitizer build (ASan + UBSan)"
"$top/scripts/build.sh" "$top/build-asan" -DVESK_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
# Leak detection on: what lives for the process by design is listed, with
# its reason, in tests/lsan.supp; any other leak fails the test that made it
# (veskhost started by a test inherits the same settings).
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  LSAN_OPTIONS="suppressions=$top/tests/lsan.supp:print_suppressions=0" \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir "$top/build-asan" --output-on-failure -j "$jobs" --timeout 600

echo "== soak, sanitizer build (a few minutes of the whole appliance under faults)"
# A small quarantine keeps freed memory from counting as resident growth.
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:quarantine_size_mb=16 \
  LSAN_OPTIONS="suppressions=$top/tests/lsan.supp:print_suppressions=0" \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  VESK_BUILD="$top/build-asan" "$top/scripts/soak.sh" --minutes 3 --out /tmp/vesk-soak-asan

echo "== armhf (the board's ABI): cross build, the suite under qemu-arm, board build"
"$top/scripts/cross.sh" armhf --board

if [ -x "$top/scripts/fuzz-short.sh" ]; then
  echo "== fuzz (short)"
  "$top/scripts/fuzz-short.sh" -b "$top/build-fuzz" -t 15
fi
echo "== all tests passed"
