#include "capturestats.h"

#include <cmath>
#include <cstring>
#include <ctime>

#include "llib/mac/tavix.h"

double MonotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void CountVideoFrame(const unsigned char* pixels, unsigned long pixelFormat, unsigned long width,
                     unsigned long height, unsigned long bytesPerRow, const SMPTETime* time,
                     long data) {
    CaptureStats& stats = *reinterpret_cast<CaptureStats*>(data);
    const double now = MonotonicSeconds();
    if (stats.firstFrameTime == 0)
        stats.firstFrameTime = now;
    if (stats.lastFrameTime > 0) {
        // The interval learns only from gaps near it: a stall (a long gap) and the burst of
        // late frames after it (short gaps) say nothing of the device's rate.
        const double gap = now - stats.lastFrameTime;
        if (stats.frameInterval == 0)
            stats.frameInterval = gap;
        else if (gap > 0.5 * stats.frameInterval && gap < 1.5 * stats.frameInterval)
            stats.frameInterval = 0.9 * stats.frameInterval + 0.1 * gap;
    }
    stats.lastFrameTime = now;
    const uint64_t frames = ++stats.frames;
    // Dropped: the frames the time since the first one should have brought and did not. Frames
    // that only came late, in a burst after a stall, are not dropped.
    if (stats.frameInterval > 0) {
        const double due = (now - stats.firstFrameTime) / stats.frameInterval + 1;
        const double missing = std::floor(due + 0.5) - static_cast<double>(frames);
        stats.droppedFrames = missing > 0 ? static_cast<uint64_t>(missing) : 0;
    }
    stats.width = width;
    stats.height = height;
    stats.pixelFormat = pixelFormat;
    if (time != nullptr) {
        stats.timecode = static_cast<uint32_t>(time->mHours & 0xFF) << 24 |
                         static_cast<uint32_t>(time->mMinutes & 0xFF) << 16 |
                         static_cast<uint32_t>(time->mSeconds & 0xFF) << 8 |
                         static_cast<uint32_t>(time->mFrames & 0xFF);
        stats.hasTimecode = true;
    }
    if (stats.snapshotWanted.exchange(false) && pixels != nullptr) {
        std::lock_guard<std::mutex> locked(stats.snapshotMutex);
        // The 4:2:0 formats keep their chroma planes after the luma rows, in one block.
        const bool planar420 =
            pixelFormat == 0x34323076 /* '420v' */ || pixelFormat == 0x79343230 /* 'y420' */;
        const unsigned long bytes = planar420 ? bytesPerRow * height * 3 / 2 : bytesPerRow * height;
        stats.snapshot.pixels.assign(pixels, pixels + bytes);
        stats.snapshot.pixelFormat = pixelFormat;
        stats.snapshot.width = width;
        stats.snapshot.height = height;
        stats.snapshot.bytesPerRow = bytesPerRow;
        stats.snapshotTaken = true;
    }
}

void CountAudioSamples(const unsigned char* samples, unsigned int formatFlags, unsigned long,
                       unsigned long channels, unsigned long bytesPerSample,
                       unsigned long sampleFrames, long data) {
    CaptureStats& stats = *reinterpret_cast<CaptureStats*>(data);
    stats.sampleFrames += sampleFrames;
    const unsigned long count = sampleFrames * channels;
    float peak = 0;
    if (samples != nullptr && (formatFlags & 1) && bytesPerSample == 4) { // float
        for (unsigned long i = 0; i < count; ++i) {
            float value;
            memcpy(&value, samples + i * 4, 4);
            peak = std::fmax(peak, std::fabs(value));
        }
    } else if (samples != nullptr && bytesPerSample == 2) {
        for (unsigned long i = 0; i < count; ++i) {
            int16_t value;
            memcpy(&value, samples + i * 2, 2);
            peak = std::fmax(peak, std::fabs(value / 32768.0f));
        }
    }
    stats.peakLevel = peak;
}
