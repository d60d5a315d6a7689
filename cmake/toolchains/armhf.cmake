# 32-bit ARM, hard-float: the board's userspace ABI.
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
# The sysroot is /opt/vesk-sysroot/armhf unless VESK_SYSROOT says otherwise.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(VESK_ARCH armhf)
set(VESK_TRIPLE arm-linux-gnueabihf)
set(VESK_QEMU qemu-arm)
# Only notes that GCC 7.1 changed how some arguments are passed; nothing here
# mixes code built by such old compilers.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
include(${CMAKE_CURRENT_LIST_DIR}/debian-sysroot.cmake)
