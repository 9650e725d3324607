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
    if (stats.lastFrameTime > 0) {
        const double gap = now - stats.lastFrameTime;
        if (stats.frameInterval > 0 && gap > 1.5 * stats.frameInterval)
            stats.droppedFrames +=
                static_cast<uint64_t>(std::lround(gap / stats.frameInterval)) - 1;
        else
            stats.frameInterval =
                stats.frameInterval > 0 ? 0.9 * stats.frameInterval + 0.1 * gap : gap;
    }
    stats.lastFrameTime = now;
    ++stats.frames;
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
