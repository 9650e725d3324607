// Capture from one ALSA PCM on its own thread, in the PCM's native format. Overruns (the thread
// fell behind and the hardware buffer filled) are recovered and capture goes on; a device that
// vanishes ends the thread and is reported once.
#pragma once

#include "platform/devices/alsa/alsadevices.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

class AlsaCapture {
public:
    // Receives interleaved samples in the native format: `frames` sample frames captured from
    // CLOCK_MONOTONIC time `timestamp` (seconds) on. Runs on the capture thread.
    using Deliver = std::function<void(const uint8_t* samples, size_t frames, double timestamp)>;
    // Called once on the capture thread when the device vanished; no delivery follows.
    using Vanished = std::function<void()>;

    enum class Status { Ok, Busy, Gone, Failed };

    AlsaCapture() = default;
    ~AlsaCapture() { stop(); }
    AlsaCapture(const AlsaCapture&) = delete;
    AlsaCapture& operator=(const AlsaCapture&) = delete;

    // Opens the PCM in `format`, with a buffer of about 200 ms in four periods, and starts the
    // capture thread. Busy when another program holds the device, Gone when it does not exist. Not
    // while running.
    Status start(const std::string& pcmName, const AlsaNativeFormat& format, Deliver deliver,
                 Vanished vanished);

    // Stops the thread and closes the PCM; returns after the last delivery has finished. Safe
    // when not running. Not from the capture thread itself.
    void stop();

    bool isRunning() const { return worker.joinable(); }
    bool isGone() const { return gone.load(); }
    // Overruns recovered since start.
    unsigned overruns() const { return overrunCount.load(); }
    size_t bytesPerFrame() const { return frameBytes; }

private:
    void run();
    bool recover(int error);

    snd_pcm_t* pcm = nullptr;
    AlsaNativeFormat current;
    size_t frameBytes = 0;
    snd_pcm_uframes_t periodFrames = 0;
    Deliver deliver;
    Vanished vanished;
    std::thread worker;
    std::atomic<bool> stopping{false};
    std::atomic<bool> gone{false};
    std::atomic<unsigned> overrunCount{0};
};
