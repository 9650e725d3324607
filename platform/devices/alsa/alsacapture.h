// Capture from one ALSA PCM on its own thread, in the PCM's native format. The thread does
// nothing but read, so the PCM's ring rarely fills; when it does (an overrun), capture is
// recovered and goes on, and the sound lost meanwhile is counted and shows as a jump in the
// delivered times. A device that vanishes ends the thread and is reported once.
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
    // CLOCK_MONOTONIC time `timestamp` (seconds) on, at most about 10 ms of sound. Runs on the
    // capture thread.
    using Deliver = std::function<void(const uint8_t* samples, size_t frames, double timestamp)>;
    // Called once on the capture thread when the device vanished; no delivery follows.
    using Vanished = std::function<void()>;

    enum class Status { Ok, Busy, Gone, Failed };

    AlsaCapture() = default;
    ~AlsaCapture() { stop(); }
    AlsaCapture(const AlsaCapture&) = delete;
    AlsaCapture& operator=(const AlsaCapture&) = delete;

    // Opens the PCM in the format it offers now (AlsaChooseFormat), with a ring of about half a
    // second read every 10 ms or so, and starts the capture thread. Busy when another program
    // holds the device, Gone when it does not exist. Not while running.
    Status start(const std::string& pcmName, Deliver deliver, Vanished vanished);

    // Stops the thread and closes the PCM; returns after the last delivery has finished. Safe
    // when not running. Not from the capture thread itself.
    void stop();

    bool isRunning() const { return worker.joinable(); }
    bool isGone() const { return gone.load(); }
    // What start chose; valid while running and after.
    const AlsaNativeFormat& format() const { return current; }
    size_t bytesPerFrame() const { return frameBytes; }
    // Overruns recovered since start, and the sample frames they lost (measured on the clock).
    unsigned overruns() const { return overrunCount.load(); }
    uint64_t lostFrames() const { return lostFrameCount.load(); }

private:
    void run();
    bool recover(int error);
    void deliverPieces(const uint8_t* samples, size_t frames, double timestamp);

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
    std::atomic<uint64_t> lostFrameCount{0};
    // On the capture thread: when the next frame is due if nothing is lost, and whether an
    // overrun happened since the last read.
    double nextFrameTime = 0;
    bool overrunPending = false;
};
