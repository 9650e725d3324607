# Fails when a source file of the project differs from what clang-format makes of it.
file(GLOB_RECURSE files
  ${SOURCE_DIR}/llib/*.cpp ${SOURCE_DIR}/llib/*.h
  ${SOURCE_DIR}/tavix/*.cpp ${SOURCE_DIR}/tavix/*.h
  ${SOURCE_DIR}/platform/*.cpp ${SOURCE_DIR}/platform/*.h
  ${SOURCE_DIR}/tools/*.cpp ${SOURCE_DIR}/tools/*.h
  ${SOURCE_DIR}/tests/*.cpp ${SOURCE_DIR}/tests/*.h
  ${SOURCE_DIR}/bench/*.cpp ${SOURCE_DIR}/bench/*.h
  ${SOURCE_DIR}/fuzz/*.cpp ${SOURCE_DIR}/examples/*.c ${SOURCE_DIR}/examples/*.h)
execute_process(COMMAND ${CLANG_FORMAT} --dry-run -Werror ${files} RESULT_VARIABLE result
                ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "Not clang-formatted (run `make format`):\n${errors}")
endif()
