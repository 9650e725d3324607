#include "capturestats.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
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

namespace {

// A timecode's frame number counted from 00:00:00:00 at its nominal rate. Drop-frame timecode
// leaves out frame labels 0 and 1 at the start of every minute except each tenth.
long long TimecodeFrameNumber(const SMPTETime& time) {
    long long perSecond = 25;
    bool drop = false;
    switch (time.mType) { // 0 24 fps, 1 25, 2 30 drop, 3 30, 4 29.97, 5 29.97 drop, 6 60...
    case 0:
        perSecond = 24;
        break;
    case 2:
    case 5:
        drop = true;
        perSecond = 30;
        break;
    case 3:
    case 4:
        perSecond = 30;
        break;
    case 6:
    case 7:
        perSecond = 60;
        break;
    default:
        break;
    }
    const long long minutes = time.mHours * 60LL + time.mMinutes;
    const long long number = (minutes * 60 + time.mSeconds) * perSecond + time.mFrames;
    return drop ? number - 2 * (minutes - minutes / 10) : number;
}

// Keeps the frame's timecode, and counts a break when it does not follow on from the last
// one: it goes back, or forward by more than the time since the last frame explains (frames
// the host dropped). The tape standing still repeats a timecode, which is no break; neither is
// the jump after a wind, nor what fast play does.
void FollowTimecode(CaptureStats& stats, const SMPTETime& time, bool afterWind, double gap) {
    const uint32_t packed = static_cast<uint32_t>(time.mHours & 0xFF) << 24 |
                            static_cast<uint32_t>(time.mMinutes & 0xFF) << 16 |
                            static_cast<uint32_t>(time.mSeconds & 0xFF) << 8 |
                            static_cast<uint32_t>(time.mFrames & 0xFF);
    const long long number = TimecodeFrameNumber(time);
    if (!stats.hasTimecode) {
        stats.firstTimecode = packed;
    } else if (!afterWind && stats.timecodeSteady) {
        const double interval = stats.gaps.Interval();
        const long long due = interval > 0 ? std::llround(gap / interval) : 1;
        const long long step = number - stats.timecodeNumber;
        if (step < 0 || step > std::max(1LL, due) + 1) {
            if (stats.breaks.size() < CaptureStats::kBreaksKept)
                stats.breaks.emplace_back(stats.timecode.load(), packed);
            ++stats.timecodeBreaks;
        }
    }
    stats.timecodeNumber = number;
    stats.timecode = packed;
    stats.hasTimecode = true;
}

} // namespace

void NoteTransport(CaptureStats& stats, int transportMode, double now) {
    if (stats.winding && stats.transportSeen > 0)
        stats.windingSeconds = stats.windingSeconds + (now - stats.transportSeen);
    const bool winding = transportMode == TavixDeviceTransportModeRewind ||
                         transportMode == TavixDeviceTransportModeFastForward;
    stats.winding = winding;
    if (winding)
        stats.woundSinceFrame = true;
    stats.timecodeSteady = transportMode != TavixDeviceTransportModePlayFastReverse &&
                           transportMode != TavixDeviceTransportModePlayFastForward;
    stats.transportSeen = now;
}

std::string TimecodeText(uint32_t packed) {
    char text[16];
    snprintf(text, sizeof text, "%02u:%02u:%02u:%02u", packed >> 24, (packed >> 16) & 0xFF,
             (packed >> 8) & 0xFF, packed & 0xFF);
    return text;
}

void CountVideoFrame(const unsigned char* pixels, unsigned long pixelFormat, unsigned long width,
                     unsigned long height, unsigned long bytesPerRow, const SMPTETime* time,
                     long data) {
    CaptureStats& stats = *reinterpret_cast<CaptureStats*>(data);
    const double now = MonotonicSeconds();
    const double gap = stats.lastFrameTime > 0 ? now - stats.lastFrameTime : 0;
    // A wind since the last frame starts a new stretch: its gap is no frame interval, and the
    // frames it did not bring were never due.
    const bool afterWind = stats.woundSinceFrame.exchange(false);
    if (stats.stretchStart == 0 || afterWind) {
        stats.droppedBefore = stats.droppedFrames;
        stats.stretchStart = now;
        stats.stretchFrames = 0;
    } else {
        stats.gaps.Add(gap);
    }
    stats.lastFrameTime = now;
    ++stats.frames;
    const uint64_t frames = ++stats.stretchFrames;
    // Dropped: the frames the time since the stretch's first one should have brought at the
    // device's rate, and did not. The rate comes from the gaps near the median: a stall (one
    // long gap) and the burst of late frames after it (short gaps) do not move it, so frames
    // that only came late are not counted, while frames a device lost are.
    const double interval = stats.gaps.Interval();
    if (interval > 0) {
        const double due = (now - stats.stretchStart) / interval + 1;
        const double missing = std::floor(due + 0.5) - static_cast<double>(frames);
        stats.droppedFrames =
            stats.droppedBefore + (missing > 0 ? static_cast<uint64_t>(missing) : 0);
    }
    stats.width = width;
    stats.height = height;
    stats.pixelFormat = pixelFormat;
    if (time != nullptr)
        FollowTimecode(stats, *time, afterWind, gap);
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
