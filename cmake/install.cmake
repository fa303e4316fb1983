# Installation: headers under an include root of their own, a CMake package, a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(include_root ${CMAKE_INSTALL_INCLUDEDIR}/marbleway-${PROJECT_VERSION_MAJOR})
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Marbleway)

target_include_directories(marbleway INTERFACE $<INSTALL_INTERFACE:${include_root}>)
# What a program needs to run, what is needed to build one, and the programs that look inside.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)
install(TARGETS marbleway EXPORT MarblewayTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES Marbleway/Marbleway.h Marbleway/Host.h Marbleway/version.h
  DESTINATION ${include_root}/Marbleway)
set(platform_headers
  buffer clock console crash_hook device export http location main_loop manual_loop network_capture
  platform status_bar user_defaults user_interface value)
list(TRANSFORM platform_headers REPLACE "(.+)" "Marbleway/platform/\\1.h")
install(FILES ${platform_headers} DESTINATION ${include_root}/Marbleway/platform)
if(TARGET marbleway_c)
  target_include_directories(marbleway_c INTERFACE $<INSTALL_INTERFACE:${include_root}>)
  install(TARGETS marbleway_c EXPORT MarblewayTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT c
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT c NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES Marbleway/marbleway_c.h DESTINATION ${include_root}/Marbleway)
endif()
if(TARGET marbleway_desktop)
  install(TARGETS marbleway_desktop EXPORT MarblewayTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT desktop NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES Marbleway/desktop.h DESTINATION ${include_root}/Marbleway)
endif()
install(FILES Marbleway/platform/${system}/http_client.h
  DESTINATION ${include_root}/Marbleway/platform/${system})
install(DIRECTORY Marbleway/platform/testing DESTINATION ${include_root}/Marbleway/platform)

set_target_properties(marbleway PROPERTIES EXPORT_NAME Marbleway)
install(EXPORT MarblewayTargets NAMESPACE Marbleway:: DESTINATION ${package_dir})
configure_package_config_file(cmake/marbleway-config.cmake.in MarblewayConfig.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(MarblewayConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/MarblewayConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/MarblewayConfigVersion.cmake
  DESTINATION ${package_dir})

# Found from where the file stands, so that an installed tree can be moved.
file(RELATIVE_PATH MARBLEWAY_PC_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
# A static library's user links what it is made with; the shared one's does not.
if(BUILD_SHARED_LIBS)
  set(MARBLEWAY_PC_REQUIRES Requires.private)
else()
  set(MARBLEWAY_PC_REQUIRES Requires)
  set(MARBLEWAY_PC_STATIC_LIBS ${system_static_libraries})
  set(MARBLEWAY_PC_SYSTEMD " libsystemd")
endif()
configure_file(cmake/marbleway.pc.in marbleway.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/marbleway.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(TARGET marbleway_c)
  configure_file(cmake/marbleway_c.pc.in marbleway_c.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/marbleway_c.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
if(TARGET marbleway_desktop)
  configure_file(cmake/marbleway_desktop.pc.in marbleway_desktop.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/marbleway_desktop.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
