# Runs the device tests inside a small VM whose kernel has the virtual capture drivers (vivid,
# snd-aloop) loaded: scripts/devvm.sh boots it and exits 77 when it cannot, which CTest reports as
# skipped. Include from tests/CMakeLists.txt after the test programs are defined.
# Under ThreadSanitizer the emulated machine runs the tests too slowly to finish.
if(TAVIX_SANITIZE STREQUAL "thread")
  return()
endif()
# The fault tests come last: their simulated unplug takes the camera away.
set(TAVIX_DEVICE_VM_TESTS test_devices_v4l2 test_devices_alsa test_devices_backend
                          test_devices_faults)
set(vm_command "")
foreach(program ${TAVIX_DEVICE_VM_TESTS})
  if(TARGET ${program})
    string(APPEND vm_command "$<TARGET_FILE:${program}> --gtest_brief=1 || status=1; ")
  endif()
endforeach()
add_test(NAME devices_vm
         COMMAND ${PROJECT_SOURCE_DIR}/scripts/devvm.sh sh -c "status=0; ${vm_command}exit $status"
         WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
set_tests_properties(devices_vm PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 900 RUN_SERIAL TRUE)

# A second boot whose vivid has two instances, the second multiplanar, each capture node with
# its four inputs (webcam, TV, S-Video, HDMI): the multiplanar, input and pixel-format tests.
set(TAVIX_DEVICE_VM_INPUT_TESTS test_devices_multiplanar test_devices_inputs
                                test_devices_vivid_formats)
set(vm_command "")
foreach(program ${TAVIX_DEVICE_VM_INPUT_TESTS})
  if(TARGET ${program})
    string(APPEND vm_command "$<TARGET_FILE:${program}> --gtest_brief=1 || status=1; ")
  endif()
endforeach()
add_test(NAME devices_vm_inputs
         COMMAND ${CMAKE_COMMAND} -E env "TAVIX_VM_VIVID=n_devs=2 multiplanar=1,2"
                 ${PROJECT_SOURCE_DIR}/scripts/devvm.sh sh -c "status=0; ${vm_command}exit $status"
         WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
set_tests_properties(devices_vm_inputs PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 900 RUN_SERIAL TRUE)
