# Installation: the library with its SONAME, the public headers, zmlog, the
# runtime program zmlog-runtime with its systemd unit, the forwarder's unit
# zmlog-forward.service, an example
# configuration, a CMake package (find_package(ZMRuntimeLog CONFIG) gives
# ZMRuntimeLog::ZMRuntimeLog) and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZMLOG_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZMRuntimeLog)

# The public headers need C++17; consumers get it through the target.
target_compile_features(ZMRuntimeLog PUBLIC cxx_std_17)

install(TARGETS ZMRuntimeLog EXPORT ZMRuntimeLogTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/log
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")

foreach(tool zmlog zmlog-runtime)
  if(TARGET ${tool})
    # Finds the library of its own installation without LD_LIBRARY_PATH.
    set_target_properties(${tool} PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  endif()
endforeach()
if(TARGET zmlog-runtime)
  set(ZMLOG_RUNTIME_PATH ${CMAKE_INSTALL_FULL_BINDIR}/zmlog-runtime)
  configure_file(${PROJECT_SOURCE_DIR}/tools/runtime/zmlog-runtime.service.in
    ${PROJECT_BINARY_DIR}/zmlog-runtime.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/zmlog-runtime.service
    DESTINATION ${CMAKE_INSTALL_DATADIR}/ZMRuntimeLog COMPONENT runtime)
endif()

if(TARGET zmlog)
  # The forwarder's unit, also where zmlog was built without --forward: it
  # documents the setup, and says so when started.
  set(ZMLOG_PATH ${CMAKE_INSTALL_FULL_BINDIR}/zmlog)
  configure_file(${PROJECT_SOURCE_DIR}/tools/zmlog/forward/zmlog-forward.service.in
    ${PROJECT_BINARY_DIR}/zmlog-forward.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/zmlog-forward.service
    DESTINATION ${CMAKE_INSTALL_DATADIR}/ZMRuntimeLog COMPONENT runtime)
endif()

install(FILES ${PROJECT_SOURCE_DIR}/config/RUNTIMELOG.cfg.example
  DESTINATION ${CMAKE_INSTALL_DATADIR}/ZMRuntimeLog COMPONENT runtime)

install(EXPORT ZMRuntimeLogTargets
  NAMESPACE ZMRuntimeLog::
  DESTINATION ${ZMLOG_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ZMRuntimeLogConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ZMRuntimeLogConfig.cmake
  INSTALL_DESTINATION ${ZMLOG_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZMRuntimeLogConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/ZMRuntimeLogConfig.cmake
  ${PROJECT_BINARY_DIR}/ZMRuntimeLogConfigVersion.cmake
  DESTINATION ${ZMLOG_CMAKE_DIR} COMPONENT dev)

# The .pc file finds the prefix relative to itself, so a moved installation
# still works; absolute install directories are written as they are.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(ZMLOG_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(ZMLOG_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(ZMLOG_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
else()
  file(RELATIVE_PATH ZMLOG_PC_UP "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
  string(REGEX REPLACE "/$" "" ZMLOG_PC_UP "${ZMLOG_PC_UP}")
  set(ZMLOG_PC_PREFIX "\${pcfiledir}/${ZMLOG_PC_UP}")
  set(ZMLOG_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(ZMLOG_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/ZMRuntimeLog.pc.in
  ${PROJECT_BINARY_DIR}/ZMRuntimeLog.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ZMRuntimeLog.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
