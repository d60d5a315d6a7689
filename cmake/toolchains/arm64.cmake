# 64-bit ARM (aarch64).
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm64.cmake
# The sysroot is /opt/vesk-sysroot/arm64 unless VESK_SYSROOT says otherwise.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(VESK_ARCH arm64)
set(VESK_TRIPLE aarch64-linux-gnu)
set(VESK_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-sysroot.cmake)
