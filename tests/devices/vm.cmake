# Runs the device tests inside a small VM whose kernel has the virtual capture drivers (vivid,
# snd-aloop) loaded: scripts/devvm.sh boots it and exits 77 only when no VM can be had, which
# CTest reports as skipped; a VM that boots and does not pass fails, a missing device included.
# Include from tests/CMakeLists.txt after the test programs are defined.
# Under ThreadSanitizer the emulated machine runs the tests too slowly to finish.
if(TAVIX_SANITIZE STREQUAL "thread")
  return()
endif()

# One VM boot, vivid loaded with `vivid_options`, running the test programs in order. The script
# gives up on the VM after `limit` seconds, printing what it did so far; CTest's own limit comes
# later (the first run also downloads the kernel), so that the output is never lost to it. The
# limits only catch a hung VM: about four times what a boot takes beside four busy loops.
function(tavix_vm_test name vivid_options limit)
  set(vm_command "")
  foreach(program ${ARGN})
    if(TARGET ${program})
      string(APPEND vm_command "$<TARGET_FILE:${program}> --gtest_brief=1 || status=1; ")
    endif()
  endforeach()
  add_test(NAME ${name}
           COMMAND ${CMAKE_COMMAND} -E env "TAVIX_VM_VIVID=${vivid_options}"
                   "TAVIX_VM_TIMEOUT=${limit}"
                   ${PROJECT_SOURCE_DIR}/scripts/devvm.sh sh -c "status=0; ${vm_command}exit $status"
           WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
  math(EXPR ctest_limit "${limit} + 120")
  set_tests_properties(${name} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT ${ctest_limit}
                                          RUN_SERIAL TRUE)
endfunction()

# One vivid instance (its capture node with four inputs: webcam, TV, S-Video, HDMI) and the
# loopback sound card. The control tests leave vivid's controls at their defaults and snd-dummy
# unloaded. The fault tests come late: their simulated unplug takes the camera away; the hotplug
# tests last, as they unload and load vivid and snd-dummy themselves.
tavix_vm_test(devices_vm "n_devs=1" 2400 test_devices_v4l2 test_devices_alsa test_devices_backend
              test_devices_controls test_devices_faults test_devices_hotplug)

# Two instances, the second multiplanar: the multiplanar, input and pixel-format tests, and the
# `tavix` command's report of what a stalled capture lost.
tavix_vm_test(devices_vm_inputs "n_devs=2 multiplanar=1,2" 1800 test_devices_multiplanar
              test_devices_inputs test_devices_vivid_formats test_tools_stall)

# Four instances, the last two multiplanar: four cameras and the sound card at once.
tavix_vm_test(devices_vm_cameras "n_devs=4 multiplanar=1,1,2,2" 1200 test_devices_cameras)
