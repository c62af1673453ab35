# Installation: headers, the shared library with its SONAME links, optionally the stand-in
# debug-output library, a CMake package (find_package(VelmoraBase)) and a pkg-config file.
include(CMakePackageConfigHelpers)

set(VELMORA_CMAKE_PACKAGE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/VelmoraBase")

install(TARGETS base_utils EXPORT VelmoraBaseTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Installed elsewhere, the library finds the stand-in beside it through RUNPATH $ORIGIN; under
# /usr (or /) the loader's own search does, and a system library carries no RUNPATH.
install(CODE "
  if(CMAKE_INSTALL_PREFIX MATCHES \"^/(usr/?)?$\")
    file(RPATH_REMOVE FILE
      \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:base_utils>\")
  endif()")
install(DIRECTORY src/base_utils/pubinc/base DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")

if(VELMORA_INSTALL_PLATFORM_STANDIN AND NOT VELMORA_PLATFORM_DEBUG_LIBRARY)
  install(TARGETS vex-debug EXPORT VelmoraBaseTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES platform/vex_debug/vex_debug.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endif()

install(EXPORT VelmoraBaseTargets NAMESPACE velmora:: DESTINATION ${VELMORA_CMAKE_PACKAGE_DIR})
configure_package_config_file(cmake/VelmoraBaseConfig.cmake.in
  "${CMAKE_CURRENT_BINARY_DIR}/VelmoraBaseConfig.cmake"
  INSTALL_DESTINATION ${VELMORA_CMAKE_PACKAGE_DIR})
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/VelmoraBaseConfigVersion.cmake"
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/VelmoraBaseConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/VelmoraBaseConfigVersion.cmake"
  DESTINATION ${VELMORA_CMAKE_PACKAGE_DIR})

# The pkg-config file names the prefix of the install itself (given at install time with --prefix
# or at configure time), so that PKG_CONFIG_SYSROOT_DIR re-roots it in a staged or target tree.
# Each destination gets a file of its own in the build tree, so that installs of one build into
# several prefixes at once do not write each other's file.
set(VELMORA_PC_PREFIX "@CMAKE_INSTALL_PREFIX@")
configure_file(cmake/velmora-base.pc.in "${CMAKE_CURRENT_BINARY_DIR}/velmora-base.pc.in" @ONLY)
install(CODE "
  string(SHA1 velmora_pc_key \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
  set(velmora_pc \"${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/\${velmora_pc_key}/velmora-base.pc\")
  configure_file(\"${CMAKE_CURRENT_BINARY_DIR}/velmora-base.pc.in\" \"\${velmora_pc}\" @ONLY)
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\"
    TYPE FILE FILES \"\${velmora_pc}\")")
