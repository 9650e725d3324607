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

# The pkg-config file finds the prefix from its own place (${pcfiledir}), so the installed tree
# works wherever `cmake --install --prefix` puts it, and wherever it is moved afterwards.
# Directories given as absolute paths stay as they are.
set(TAVIX_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  file(RELATIVE_PATH TAVIX_PC_UP "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" TAVIX_PC_UP "${TAVIX_PC_UP}")
  set(TAVIX_PC_PREFIX "\${pcfiledir}/${TAVIX_PC_UP}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(TAVIX_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(TAVIX_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file(cmake/tavix.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tavix.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tavix.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
