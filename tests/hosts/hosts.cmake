# Plain C hosts linked against the shared library as an application links it, each run as a test
# of its own; without a sanitizer they run again under valgrind's memcheck, whose errors fail.
find_program(VALGRIND valgrind)
foreach(host reentrant_callbacks)
  add_executable(host_${host} ${CMAKE_CURRENT_LIST_DIR}/${host}.c)
  set_target_properties(host_${host} PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON
                        C_EXTENSIONS OFF)
  target_compile_definitions(host_${host} PRIVATE _POSIX_C_SOURCE=200809L)
  target_compile_options(host_${host} PRIVATE -Wall -Wextra -Werror -pedantic)
  target_link_libraries(host_${host} PRIVATE tavix)
  add_test(NAME hosts_${host} COMMAND host_${host})
  set_tests_properties(hosts_${host} PROPERTIES TIMEOUT 600)
  if(VALGRIND AND NOT TAVIX_SANITIZE)
    add_test(NAME hosts_${host}_memcheck
             COMMAND ${VALGRIND} --tool=memcheck --error-exitcode=99 --leak-check=no
                     --track-origins=yes --quiet $<TARGET_FILE:host_${host}>)
    set_tests_properties(hosts_${host}_memcheck PROPERTIES TIMEOUT 900)
  endif()
endforeach()
