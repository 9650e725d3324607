# The Python package's tests (pytest), run against the library of this build through
# TAVIX_LIBRARY, with the package taken from the source tree. python3 cannot load a library built
# with a sanitizer unless the sanitizer's runtime is preloaded into the interpreter, so sanitizer
# builds report the test skipped.
if(TAVIX_SANITIZE)
  add_test(NAME python_package
           COMMAND sh -c "echo 'skipped: python3 cannot load a ${TAVIX_SANITIZE} sanitizer build'; exit 77")
else()
  add_test(NAME python_package
           COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/run_pytest.sh $<TARGET_FILE:tavix> ${PROJECT_SOURCE_DIR})
endif()
set_tests_properties(python_package PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300)
