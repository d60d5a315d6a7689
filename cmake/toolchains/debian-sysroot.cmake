# Shared part of the ARM toolchain files: Debian's cross compiler for
# VESK_TRIPLE on a sysroot of extracted Debian 12 packages of the target
# (made by scripts/cross.sh), kept apart from the machine's own libraries.
# Expects VESK_TRIPLE, VESK_ARCH (Debian's name) and CMAKE_SYSTEM_PROCESSOR.

set(CMAKE_SYSTEM_NAME Linux)

if(NOT VESK_SYSROOT)
  if(DEFINED ENV{VESK_SYSROOT})
    set(VESK_SYSROOT "$ENV{VESK_SYSROOT}")
  else()
    set(VESK_SYSROOT "/opt/vesk-sysroot/${VESK_ARCH}")
  endif()
endif()
if(NOT EXISTS "${VESK_SYSROOT}/usr/lib/${VESK_TRIPLE}")
  message(FATAL_ERROR "No ${VESK_ARCH} sysroot at ${VESK_SYSROOT}: run scripts/cross.sh ${VESK_ARCH}")
endif()
# try_compile projects read this file again and need the same answer.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VESK_SYSROOT)

set(CMAKE_C_COMPILER ${VESK_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${VESK_TRIPLE}-g++)
set(CMAKE_SYSROOT "${VESK_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE ${VESK_TRIPLE})

# Headers, libraries and CMake packages from the sysroot only; programs run
# at build time (ffmpeg, moc) are the machine's own.
set(CMAKE_FIND_ROOT_PATH "${VESK_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The machine's pkg-config, reading the target's .pc files; their paths get
# the sysroot put in front.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${VESK_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${VESK_SYSROOT}/usr/lib/${VESK_TRIPLE}/pkgconfig:${VESK_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# The sysroot's moc and rcc are target binaries. The same Qt release's tools
# of the machine produce the same code, so they are declared before Qt's own
# package files would declare the sysroot's ones.
set(CMAKE_PROJECT_INCLUDE "${CMAKE_CURRENT_LIST_DIR}/qt-host-tools.cmake")

# Target programs (tests, test discovery) run under user-mode emulation,
# with the sysroot as their root for the dynamic loader and libraries. Qt's
# plugins are named by their real path: qemu-aarch64 7.2 does not look in the
# sysroot for access() (faccessat2), with which Qt checks its plugin folder.
set(CMAKE_CROSSCOMPILING_EMULATOR ${VESK_QEMU} -L "${VESK_SYSROOT}"
    -E "QT_PLUGIN_PATH=${VESK_SYSROOT}/usr/lib/${VESK_TRIPLE}/qt5/plugins")
