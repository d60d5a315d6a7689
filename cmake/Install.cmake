# What a firmware team gets: `cmake --install` and the Debian packages made by
# CPack from the same rules.
#
#   lib/<arch>/libVeskIO.so.1      the library, and the platform library it
#                                  needs (the virtual board or the board seam)
#   bin/veskhost                   the reference host
#   include/veskio/...             the host contract and the plug-in interface
#   lib/<arch>/pkgconfig/veskio.pc
#   lib/<arch>/cmake/VeskIO/       find_package(VeskIO) -> VeskIO::VeskIO
#
# Everything finds its neighbours relative to itself ($ORIGIN, ${pcfiledir},
# the CMake package's own prefix), so a tree installed with --prefix or
# unpacked somewhere else still works.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VESK_INCLUDE_SUBDIR ${CMAKE_INSTALL_INCLUDEDIR}/veskio)
set(VESK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VeskIO)

# A consumer includes "driver/VeskDriverCustom.h" and "frame/VeskObject.h" as
# the library's own sources do, and needs QtCore for them.
target_include_directories(VeskIO INTERFACE $<INSTALL_INTERFACE:${VESK_INCLUDE_SUBDIR}>)
target_link_libraries(VeskIO INTERFACE Qt5::Core)

# The library loads its platform library from beside itself; veskhost finds
# both one directory up.
file(RELATIVE_PATH vesk_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(VeskIO ${VESK_PLATFORM_LIB} PROPERTIES INSTALL_RPATH "$ORIGIN")
# The board build has no veskhost: it runs on the virtual board.
if(TARGET veskhost)
  set_target_properties(veskhost PROPERTIES INSTALL_RPATH "$ORIGIN/${vesk_bin_to_lib}")
  install(TARGETS veskhost RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT host)
endif()

install(TARGETS VeskIO ${VESK_PLATFORM_LIB} EXPORT VeskIOTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
# The platform library has no version of its own: it is a private part of the
# runtime package, and its unversioned name is what the library asks for.

# The headers a host or a plug-in author compiles against. The rest of
# frame/ (the OS seam, the vendor platform's calls) is the library's own.
install(FILES
  ${PROJECT_SOURCE_DIR}/frame/VeskObject.h
  ${PROJECT_SOURCE_DIR}/frame/Vesk.h
  ${PROJECT_SOURCE_DIR}/frame/VeskHi.h
  ${PROJECT_SOURCE_DIR}/frame/hi_types.h
  ${PROJECT_SOURCE_DIR}/frame/VeskRegister.h
  DESTINATION ${VESK_INCLUDE_SUBDIR}/frame COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/driver/VeskDriverCustom.h
  DESTINATION ${VESK_INCLUDE_SUBDIR}/driver COMPONENT dev)

# pkg-config: prefix relative to the .pc file itself.
file(RELATIVE_PATH vesk_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" vesk_pc_to_prefix "${vesk_pc_to_prefix}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/veskio.pc.in ${PROJECT_BINARY_DIR}/veskio.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/veskio.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# The platform library's own link interface names Qt's modules.
if(VESK_PLATFORM STREQUAL "sim")
  set(VESK_QT_COMPONENTS "Core Gui")
else()
  set(VESK_QT_COMPONENTS "Core")
endif()
install(EXPORT VeskIOTargets NAMESPACE VeskIO:: DESTINATION ${VESK_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VeskIOConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VeskIOConfig.cmake INSTALL_DESTINATION ${VESK_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VeskIOConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VeskIOConfig.cmake
  ${PROJECT_BINARY_DIR}/VeskIOConfigVersion.cmake
  DESTINATION ${VESK_CMAKE_DIR} COMPONENT dev)

# ---- Debian packages ---------------------------------------------------------
# The architecture is the target's, not the build machine's.
if(CMAKE_CROSSCOMPILING)
  if(CMAKE_LIBRARY_ARCHITECTURE MATCHES "^arm-linux-gnueabihf")
    set(vesk_deb_arch armhf)
  elseif(CMAKE_LIBRARY_ARCHITECTURE MATCHES "^arm-linux-gnueabi")
    set(vesk_deb_arch armel)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(vesk_deb_arch arm64)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    set(vesk_deb_arch armhf)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    set(vesk_deb_arch amd64)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^i.86$")
    set(vesk_deb_arch i386)
  else()
    set(vesk_deb_arch ${CMAKE_SYSTEM_PROCESSOR})
  endif()
else()
  find_program(VESK_DPKG dpkg)
  if(VESK_DPKG)
    execute_process(COMMAND ${VESK_DPKG} --print-architecture
      OUTPUT_VARIABLE vesk_deb_arch OUTPUT_STRIP_TRAILING_WHITESPACE)
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME veskio)
set(CPACK_PACKAGE_VENDOR "Vesk")
set(CPACK_PACKAGE_CONTACT "Vesk firmware team <firmware@vesk.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET veskhost)
  list(APPEND CPACK_COMPONENTS_ALL host)
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${vesk_deb_arch})
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libveskio1)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libveskio-dev)
set(CPACK_DEBIAN_HOST_PACKAGE_NAME veskhost)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION video)
# Each package's first description line is its summary.
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "Vesk I/O library: capture, playback and device nodes\n The nodes a Vesk host creates by class name, and the chip drivers under them.")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Vesk I/O library: development files\n Host contract and custom receiver plug-in headers, pkg-config file and CMake package.")
set(CPACK_COMPONENT_HOST_DESCRIPTION
  "Vesk reference host\n Runs node graphs, watches a board's inputs and describes the node classes.")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_HOST_DEPENDS runtime)
# What the headers need to compile is not a shared-library dependency.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "qtbase5-dev")

if(NOT CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps reads the binaries; our own libraries resolve through the
  # component dependencies above.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/sim)
else()
  # dpkg-shlibdeps cannot read a foreign architecture's package database:
  # the Debian 12 packages the binaries link against, by name.
  set(vesk_deb_libs "libc6, libstdc++6, libqt5core5a, libqt5network5, libqt5serialport5, libqt5gui5, libavformat59, libavcodec59, libavutil57, libavdevice59, libasound2")
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${vesk_deb_libs}")
  set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS "libc6, libstdc++6, libqt5core5a, libavutil57")
endif()

include(CPack)
