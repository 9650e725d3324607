# Installs the library into a temporary prefix and builds and runs hosts against that install
# alone: the example through pkg-config and through find_package(tavix); and compares the names
# the installed headers declare with those the library exports (tests/consumer/public_names.py).
# Not in sanitizer builds: a host built without the sanitizer cannot load such a library.
if(TAVIX_SANITIZE)
  return()
endif()
find_package(Python3 COMPONENTS Interpreter)
find_program(TAVIX_CLANGXX NAMES clang++ clang++-14)
add_test(NAME consumer_install
         COMMAND ${CMAKE_COMMAND}
                 -DBUILD_DIR=${PROJECT_BINARY_DIR}
                 -DSOURCE_DIR=${PROJECT_SOURCE_DIR}
                 -DWORK_DIR=${PROJECT_BINARY_DIR}/consumer
                 -DLIBDIR=${CMAKE_INSTALL_LIBDIR}
                 -DC_COMPILER=${CMAKE_C_COMPILER}
                 -DCXX_COMPILER=${CMAKE_CXX_COMPILER}
                 -DPKG_CONFIG=${PKG_CONFIG_EXECUTABLE}
                 -DPYTHON=${Python3_EXECUTABLE}
                 -DCLANGXX=${TAVIX_CLANGXX}
                 -P ${CMAKE_CURRENT_LIST_DIR}/consumer_test.cmake)
set_tests_properties(consumer_install PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
