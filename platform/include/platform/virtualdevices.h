// Test control of the built-in virtual devices and of capture sessions. Not part of the
// library's interface: tests and benchmarks link the platform layer directly.
//
// Built in, always listed after any real device:
//   "Tavix Test Camera"      video, 1280 x 720 at 30 fps, '2vuy', a moving test pattern with
//                            the frame number burnt in; also 640 x 480 and 320 x 240, each
//                            size at 30 or 60 fps
//   "Tavix Test Microphone"  sound, 48 kHz stereo 32-bit float, a 1 kHz sine
//   "Tavix Test Deck"        muxed, 720 x 576 at 25 fps '2vuy' with SMPTE timecode on every
//                            frame, 48 kHz 16-bit stereo, tape transport controls
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/coreaudio.h"
#include "platform/devicebackend.h"
#include "platform/qtkit.h"

namespace virtualdevices {

struct VideoMode {
    OSType pixelFormat = 0;
    size_t width = 0, height = 0;
    double frameRate = 30;               // the rate streamed unless another is asked for
    std::vector<double> otherRates = {}; // offered besides frameRate
    // Each picture comes as JPEG too, as from a Motion-JPEG camera (32-bit BGRA modes only).
    bool jpeg = false;
};

struct DeviceSpec {
    std::string name;
    std::string uniqueId; // made from the name when empty
    bool video = false, sound = false, muxed = false;
    std::vector<VideoMode> videoModes;   // the first is the default
    AudioStreamBasicDescription audio{}; // for sound and muxed devices
    double toneHz = 1000;                // the sine the device plays
    bool transport = false;              // tape transport controls and timecode
    bool connected = true, inUse = false, openable = true;
    bool oneStream = false; // refuses a second stream while one is open, as a V4L2 node does
    bool controls = false;  // the test camera's controls (brightness, test_pattern, gain...)
};

// The built-in devices' names.
extern const char* const kTestCameraName;
extern const char* const kTestMicrophoneName;
extern const char* const kTestDeckName;

// Adds a device after the built-in ones; returns its unique id.
std::string Add(const DeviceSpec& spec);
// Removes an added device (its open streams end as if it were unplugged).
void Remove(const std::string& uniqueId);
// Removes every added device, undoes every setting below and puts the test camera's controls
// back to their defaults.
void Reset();

// Unplugging: frames stop and the device reports that it is not connected.
void SetConnected(const std::string& uniqueId, bool connected);
void SetInUseByAnotherApplication(const std::string& uniqueId, bool inUse);
void SetOpenable(const std::string& uniqueId, bool openable);
// A stalled device stays connected but delivers nothing, as a stuck driver does; its stream
// takes up where the clock is when the stall ends.
void SetStalled(const std::string& uniqueId, bool stalled);

// Puts a deck's tape `seconds` from its start at once, in whatever motion it is in, as if it had
// been wound there unseen, so a test can run it backwards without reaching the start. Reset
// leaves the tape where it is, as a stop does.
void CueTape(const std::string& uniqueId, double seconds);

// Devices deliver as fast as they can instead of at their frame rate (benchmarks).
void SetUnthrottled(bool unthrottled);
// Cameras draw only their first few pictures and then deliver those buffers as they are, so a
// benchmark measures the library's own cost per frame rather than the drawing.
void SetStillPictures(bool still);

// Sessions refuse inputs of this device, or outputs of this kind, until told otherwise.
void SetSessionRefusesInput(const std::string& uniqueId, bool refuse);
void SetSessionRefusesOutput(QTCaptureOutput::Kind kind, bool refuse);
bool SessionRefusesInput(const std::string& uniqueId);
bool SessionRefusesOutput(QTCaptureOutput::Kind kind);

// Samples a device has delivered to capture threads since it was added (or the process began).
uint64_t DeliveredSamples(const std::string& uniqueId);

// The test pattern, as the camera draws frame `frame` (for tests that check pixels): the
// colour of pixel (x, y) as 8-bit R, G, B.
void TestPatternPixel(size_t width, size_t height, uint64_t frame, size_t x, size_t y,
                      uint8_t rgb[3]);

} // namespace virtualdevices
