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

void GapHistogram::Add(double seconds) {
    const double slot = seconds / kSlotSeconds;
    const size_t i = slot < kSlots - 1 ? static_cast<size_t>(slot) : kSlots - 1;
    ++counts[i];
    sums[i] += seconds;
    ++count;
}

double GapHistogram::Interval() const {
    uint64_t seen = 0;
    size_t median = kSlots;
    for (size_t i = 0; i < kSlots && median == kSlots; ++i) {
        seen += counts[i];
        if (count > 0 && 2 * seen >= count)
            median = i;
    }
    if (median == kSlots || median == kSlots - 1)
        return 0;
    // The mean of the gaps near the median is exact where one slot is coarse.
    double sum = 0;
    uint64_t near = 0;
    for (size_t i = median / 2; i <= median + median / 2 && i < kSlots - 1; ++i) {
        sum += sums[i];
        near += counts[i];
    }
    return near > 0 ? sum / static_cast<double>(near) : 0;
}

void CountVideoFrame(const unsigned char* pixels, unsigned long pixelFormat, unsigned long width,
                     unsigned long height, unsigned long bytesPerRow, const SMPTETime* time,
                     long data) {
    CaptureStats& stats = *reinterpret_cast<CaptureStats*>(data);
    const double now = MonotonicSeconds();
    if (stats.firstFrameTime == 0)
        stats.firstFrameTime = now;
    if (stats.lastFrameTime > 0)
        stats.gaps.Add(now - stats.lastFrameTime);
    stats.lastFrameTime = now;
    const uint64_t frames = ++stats.frames;
    // Dropped: the frames the time since the first one should have brought at the device's
    // rate, and did not. The rate comes from the gaps near the median: a stall (one long gap)
    // and the burst of late frames after it (short gaps) do not move it, so frames that only
    // came late are not counted, while frames a device lost are.
    const double interval = stats.gaps.Interval();
    if (interval > 0) {
        const double due = (now - stats.firstFrameTime) / interval + 1;
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

void CountAudioSamples(const unsigned char* samples, unsigned int formatFlags,
                       unsigned long sampleRate, unsigned long channels,
                       unsigned long bytesPerSample, unsigned long sampleFrames, long data) {
    CaptureStats& stats = *reinterpret_cast<CaptureStats*>(data);
    const uint64_t received = stats.sampleFrames += sampleFrames;
    // Lost: the sound the time since the first buffer should have brought, less what came. Sound
    // a stalled host gets late is not lost; it arrives in a burst and the figure falls back. A
    // buffer's worth of jitter (tens of milliseconds) is not counted.
    const double now = MonotonicSeconds();
    if (stats.firstSoundTime == 0) {
        stats.firstSoundTime = now;
        stats.soundBeforeFirst = sampleFrames;
    } else if (sampleRate > 0) {
        const double due = (now - stats.firstSoundTime) * static_cast<double>(sampleRate) +
                           static_cast<double>(stats.soundBeforeFirst);
        const double lost = (due - static_cast<double>(received)) / static_cast<double>(sampleRate);
        stats.soundLostSeconds = lost > 0.05 ? lost : 0.0;
    }
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

unsigned long PicturesNotRecorded(unsigned long device) {
    unsigned long recorded = 0, notRecorded = 0;
    return TavixDeviceGetRecordingFrameCounts(device, &recorded, &notRecorded) ? notRecorded : 0;
}
