# Installs the library, its public headers, a pkg-config file and a CMake package, so a host finds
# it with `pkg-config --cflags --libs tavix` or `find_package(tavix)` and `tavix::tavix`.
include(CMakePackageConfigHelpers)

install(TARGETS tavix EXPORT tavixTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY llib/include/llib DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tavixTargets NAMESPACE tavix:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tavix)

configure_package_config_file(cmake/tavixConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tavixConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tavix)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tavixConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tavixConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/tavixConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tavix)

configure_file(cmake/tavix.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tavix.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tavix.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
