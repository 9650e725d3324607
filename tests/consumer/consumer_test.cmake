# Run by CTest (see consumer.cmake): installs the build into WORK_DIR/prefix and builds and runs
# hosts that see nothing but that prefix.
cmake_minimum_required(VERSION 3.20)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE output
                  ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    string(REPLACE ";" " " command "${ARGN}")
    message(FATAL_ERROR "${command} failed (${status}):\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

# The example's output: the test camera, its default format, and at least two seconds' worth of
# frames and sound (30 fps, 48 kHz); a loaded machine may take longer over the two seconds.
function(check_capture label output)
  if(NOT output MATCHES "device: Tavix Test Camera\n"
     OR NOT output MATCHES "format: video 2vuy 1280 x 720\n"
     OR NOT output MATCHES "frames: ([0-9]+) \\(1280 x 720\\)\n")
    message(FATAL_ERROR "${label}: unexpected output:\n${output}")
  endif()
  set(frames ${CMAKE_MATCH_1})
  if(NOT output MATCHES "sample frames: ([0-9]+)")
    message(FATAL_ERROR "${label}: no sound:\n${output}")
  endif()
  if(frames LESS 30 OR CMAKE_MATCH_1 LESS 48000)
    message(FATAL_ERROR "${label}: ${frames} frames, ${CMAKE_MATCH_1} sample frames:\n${output}")
  endif()
  message(STATUS "${label}: ${frames} frames, ${CMAKE_MATCH_1} sample frames")
endfunction()

if(IS_ABSOLUTE "${LIBDIR}")
  message(STATUS "skipped: the library directory ${LIBDIR} is outside any install prefix")
  cmake_language(EXIT 77)
endif()
# Installed in one place and used from another: nothing installed may depend on where it was
# put, nor point into the source or build tree.
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/installed)
file(RENAME ${WORK_DIR}/installed ${prefix})
file(GLOB_RECURSE package_files ${prefix}/${LIBDIR}/*.cmake ${prefix}/${LIBDIR}/*.pc)
foreach(file ${package_files})
  file(READ ${file} text)
  foreach(place ${WORK_DIR}/installed ${SOURCE_DIR} ${BUILD_DIR})
    string(FIND "${text}" "${place}" at)
    if(NOT at EQUAL -1)
      message(FATAL_ERROR "${file} names ${place}")
    endif()
  endforeach()
endforeach()

# The library's name: hosts record it, not the file they were linked against.
run(readelf -d ${prefix}/${LIBDIR}/libtavix.so.1)
if(NOT output MATCHES "Library soname: \\[libtavix\\.so\\.1\\]")
  message(FATAL_ERROR "libtavix.so.1 lacks its soname:\n${output}")
endif()

# Every declared name against the exported ones: nothing of the platform layer, the standard
# library or FFmpeg leaves the library.
set(names_checked FALSE)
if(PYTHON AND CLANGXX)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/instantiations.h ${WORK_DIR}/instantiations.h COPYONLY)
  execute_process(COMMAND ${PYTHON} ${CMAKE_CURRENT_LIST_DIR}/public_names.py
                          --include ${prefix}/include --library ${prefix}/${LIBDIR}/libtavix.so.1
                          --clang ${CLANGXX} --instantiations ${WORK_DIR}/instantiations.h
                  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
  message("${output}")
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "the installed headers and the exported names differ")
  endif()
  set(names_checked TRUE)
endif()

# The example through pkg-config, with the installed tavix.pc the only one it can find.
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
set(ENV{PKG_CONFIG_LIBDIR} ${prefix}/${LIBDIR}/pkgconfig)
run(${PKG_CONFIG} --cflags --libs tavix)
string(STRIP "${output}" output)
separate_arguments(flags UNIX_COMMAND "${output}")
foreach(flag ${flags})
  if(flag MATCHES "^-[IL](.*)")
    if(NOT EXISTS "${CMAKE_MATCH_1}")
      message(FATAL_ERROR "tavix.pc names ${CMAKE_MATCH_1}, which does not exist: ${output}")
    endif()
  endif()
endforeach()
run(${C_COMPILER} -std=c99 -Wall -Wextra -Werror -pedantic ${SOURCE_DIR}/examples/capture.c
    ${flags} -o ${WORK_DIR}/capture_pkgconfig)

# The example through find_package(tavix).
run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/project -B ${WORK_DIR}/project
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
    -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    -DEXAMPLE_SOURCE=${SOURCE_DIR}/examples/capture.c)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/project -j 2)

# The CMake-built example finds the library through its RPATH, the other through
# LD_LIBRARY_PATH.
run(${WORK_DIR}/project/capture)
check_capture("find_package" "${output}")
run(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/${LIBDIR} ${WORK_DIR}/capture_pkgconfig)
check_capture("pkg-config" "${output}")

if(NOT names_checked)
  message(STATUS "the header check is skipped: it needs python3 and clang++")
  cmake_language(EXIT 77)
endif()
