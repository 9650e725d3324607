// Loading and unloading the guest's kernel modules, for the device tests that run inside
// scripts/devvm.sh (it says where the guest's modules are; elsewhere there are none to load).
#pragma once

#include <string>

#include "support/realdevices.h"

// Runs the guest's modprobe with `arguments`; false when it fails or there is no guest.
bool Modprobe(const std::string& arguments);

// Unloads `module` ("snd-dummy" or "snd_dummy") and waits until it is gone: the library's
// hot-plug monitor lists the devices again after every kernel event, and a listing holds a sound
// card's control device open for a moment, so modprobe can find the module in use just after a
// card arrived. False when it is still loaded after a minute and a half.
bool Unload(std::string module);

// True inside the VM, where scripts/devvm.sh gives the guest's modules.
bool HaveGuestModules();

// Skips the test when there are no guest modules to load.
#define REQUIRE_MODULES()                                                                          \
    if (!HaveGuestModules()) {                                                                     \
        DEVICE_MISSING() << "no guest modules to load (scripts/devvm.sh gives them)";              \
    }
