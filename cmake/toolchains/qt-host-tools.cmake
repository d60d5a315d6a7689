# Included after project() in cross builds (see debian-sysroot.cmake): Qt's
# code generators from the machine, not the target's.
foreach(tool moc rcc)
  find_program(VESK_QT_${tool} ${tool} PATHS /usr/lib/qt5/bin NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  if(NOT VESK_QT_${tool})
    message(FATAL_ERROR "Qt's ${tool} for this machine is missing (Debian: qtbase5-dev-tools)")
  endif()
  if(NOT TARGET Qt5::${tool})
    add_executable(Qt5::${tool} IMPORTED GLOBAL)
    set_target_properties(Qt5::${tool} PROPERTIES IMPORTED_LOCATION ${VESK_QT_${tool}})
  endif()
endforeach()
