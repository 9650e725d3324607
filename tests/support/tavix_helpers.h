// Helpers for tests that drive the library through its exported functions.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "llib/mac/tavix.h"
#include "platform/virtualdevices.h"

// Waits up to `limit` for predicate to hold; the default is generous, for a loaded machine.
template <class Predicate>
bool WaitUntil(Predicate predicate,
               std::chrono::milliseconds limit = std::chrono::milliseconds(20000)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// What the counting callbacks saw; pass its address as the callback data.
struct CallbackLog {
    std::atomic<int> frames{0};
    std::atomic<long> sampleFrames{0};
    std::atomic<unsigned long> pixelFormat{0}, width{0}, height{0}, bytesPerRow{0};
    std::atomic<unsigned long> sampleRate{0}, channels{0}, bytesPerSample{0};
    std::atomic<unsigned int> formatFlags{0};
    std::atomic<bool> sawTimecode{false};
    std::atomic<long> lastData{0};
    std::atomic<unsigned long> maxSampleFrames{0};
    std::atomic<int> framesAtFirstSound{-1}; // pictures seen before the first sound came
    std::atomic<double> firstFrameAt{0}, lastFrameAt{0}; // steady-clock seconds of the frames
};

// Seconds on the steady clock, as CallbackLog keeps them.
double SteadySeconds();

void LogFrame(const unsigned char* pixels, unsigned long pixelFormat, unsigned long width,
              unsigned long height, unsigned long bytesPerRow, const SMPTETime* time, long data);
void LogSound(const unsigned char* samples, unsigned int formatFlags, unsigned long sampleRate,
              unsigned long channels, unsigned long bytesPerSample, unsigned long sampleFrames,
              long data);

inline long DataOf(CallbackLog& log) {
    return reinterpret_cast<long>(&log);
}

// A virtual microphone like the test microphone (48 kHz stereo float), to add under `name`.
virtualdevices::DeviceSpec MicrophoneSpec(const std::string& name);
// A virtual camera with one mode, to add under `name`.
virtualdevices::DeviceSpec CameraSpec(const std::string& name, virtualdevices::VideoMode mode);

// Stops, closes and releases a handle, and resets the virtual devices, at the end of a scope.
class DeviceScope {
public:
    explicit DeviceScope(unsigned long handle) : handle(handle) {}
    ~DeviceScope();
    unsigned long handle;
};
