# What `cmake --install` puts where (GNUInstallDirs):
#   bin/zvxfer                      the program (run path $ORIGIN/../<libdir>)
#   <libdir>/libzvxfer.so.0.1.0     with the links .so.0 and .so
#   <libdir>/libzvxfer.a
#   include/zvxfer.h
#   <libdir>/pkgconfig/zvxfer.pc
#   <libdir>/cmake/zvxfer/          zvxferConfig.cmake, its version file and
#                                   the targets zvxfer::zvxfer, zvxfer::zvxfer_static
#   share/zvxfer/*.nls              the message catalogues (cmake/catalogues.cmake)
#   <sysconfdir>/zvxfer/registry    where the catalogues are
# The .pc file and the registry name the prefix given at install time, so a
# build installed with `cmake --install build --prefix DIR` describes DIR.
include(CMakePackageConfigHelpers)
set(ZVXFER_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zvxfer)

install(TARGETS zvxfer zvxfer_static EXPORT zvxferTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${CMAKE_SOURCE_DIR}/include/zvxfer.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT zvxferTargets NAMESPACE zvxfer:: DESTINATION ${ZVXFER_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/zvxferConfig.cmake.in
  ${CMAKE_BINARY_DIR}/cmake/zvxferConfig.cmake INSTALL_DESTINATION ${ZVXFER_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/zvxferConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/cmake/zvxferConfig.cmake
              ${CMAKE_BINARY_DIR}/cmake/zvxferConfigVersion.cmake
        DESTINATION ${ZVXFER_CMAKE_DIR})

# The files that name the install-time prefix are written by a script run
# at install time from templates made now.
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(ZVXFER_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(ZVXFER_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
configure_file(${CMAKE_SOURCE_DIR}/cmake/zvxfer.pc.in ${CMAKE_BINARY_DIR}/cmake/zvxfer.pc.in @ONLY)
zvxfer_registry_text(_registry_template "__ZVXFER_DATADIR__")
file(WRITE ${CMAKE_BINARY_DIR}/cmake/registry.in "${_registry_template}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/install_prefix_files.cmake.in
  ${CMAKE_BINARY_DIR}/cmake/install_prefix_files.cmake @ONLY)
install(SCRIPT ${CMAKE_BINARY_DIR}/cmake/install_prefix_files.cmake)
