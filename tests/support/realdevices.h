// Finding the kernel's virtual devices (vivid cameras, the snd-aloop loopback card) for the
// device tests, which skip themselves, saying why, on a machine without them; inside the device
// VM a missing device fails the test instead.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/devicebackend.h"
#include "platform/devices/v4l2/v4l2camera.h"

// True when the device tests must find their devices (TAVIX_REQUIRE_DEVICES=1, which
// scripts/devvm.sh sets inside the VM): there a missing device means a broken lab, not a
// machine without devices, and must not pass as a skip.
bool DevicesRequired();

// Ends the test because a device it needs is missing: skipped, or failed when devices are
// required. Stream the reason into it: `DEVICE_MISSING() << "no loopback sound card";`.
#define DEVICE_MISSING()                                                                           \
    return GTEST_MESSAGE_(DevicesRequired() ? "Required device missing (TAVIX_REQUIRE_DEVICES=1)"  \
                                            : "Skipped",                                           \
                          DevicesRequired() ? ::testing::TestPartResult::kFatalFailure             \
                                            : ::testing::TestPartResult::kSkip)

// The display names the library lists for `mediaType` (a TavixDeviceMediaType), in its order.
std::vector<std::string> ListedDeviceNames(int mediaType);

// The formats the capture core sees for the device with `uniqueId`; empty when it is not there.
std::vector<platform::DeviceFormat> BackendFormats(const std::string& uniqueId);

// The first V4L2 capture node offering `fourcc`; an empty path when there is none.
V4L2DeviceInfo FindCameraOffering(uint32_t fourcc);

#define REQUIRE_CAMERA(info, fourcc)                                                               \
    const V4L2DeviceInfo info = FindCameraOffering(fourcc);                                        \
    if (info.path.empty()) {                                                                       \
        DEVICE_MISSING() << "no V4L2 camera offering this format (scripts/devvm.sh has one)";      \
    }

// The first multiplanar capture node (vivid multiplanar=2); an empty path when there is none.
V4L2DeviceInfo FindMultiplanarCamera();

#define REQUIRE_MULTIPLANAR_CAMERA(info)                                                           \
    const V4L2DeviceInfo info = FindMultiplanarCamera();                                           \
    if (info.path.empty()) {                                                                       \
        DEVICE_MISSING() << "no multiplanar V4L2 camera (the devices_vm_inputs VM boot has one)";  \
    }

// The file a mapping of this process's memory at `address` comes from ("" for anonymous
// memory): a frame lent from a driver's buffer reads from "/dev/videoN".
std::string MappedFileOf(const void* address);

// Records `frames` pictures from the camera, asked for as BGRA at width x height, and checks
// that the file plays and holds what the callback saw; also at that size when `sizeIsNative`
// (the recording keeps the device's own pictures). Skips without ffprobe.
void ExpectCameraRecordsWhatTheCallbackSees(const std::string& camera, unsigned long width,
                                            unsigned long height, int frames, bool sizeIsNative);

// The loopback card's capture side (what is played into kLoopbackPlayback comes out here).
extern const char* const kLoopbackCapture;
extern const char* const kLoopbackPlayback;
// The loopback capture side's display name; empty when the card is not there.
std::string LoopbackInputName();

#define REQUIRE_LOOPBACK(name)                                                                     \
    const std::string name = LoopbackInputName();                                                  \
    if (name.empty()) {                                                                            \
        DEVICE_MISSING() << "no loopback sound card (scripts/devvm.sh loads snd-aloop)";           \
    }

// Plays a 16-bit stereo sine at `hz` into kLoopbackPlayback until `stop` is set; run it on a
// thread of its own. Returns at once when the card cannot be opened.
void PlayLoopbackTone(double hz, const std::atomic<bool>& stop);
