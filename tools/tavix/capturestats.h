// What `tavix capture` counts while frames and sound arrive. The callbacks write it on the
// library's capture threads; the command's main loop reads it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "png.h"

// Gaps between frames in half-millisecond slots up to half a second.
struct GapHistogram {
    static constexpr size_t kSlots = 1000;
    static constexpr double kSlotSeconds = 0.0005;
    void Add(double seconds);
    // The mean of the gaps between half and one and a half times the median gap: the frame
    // interval, whatever stalls and bursts there were. 0 before the first gap.
    double Interval() const;
    uint64_t counts[kSlots] = {};
    double sums[kSlots] = {};
    uint64_t count = 0;
};

struct CaptureStats {
    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> droppedFrames{0}; // frames due by the time passed that never came
    std::atomic<uint64_t> sampleFrames{0};
    // Seconds of sound the clock says were due by the latest buffer that never came: sound the
    // library dropped for a host that fell too far behind, or a device overrun.
    std::atomic<double> soundLostSeconds{0};
    std::atomic<float> peakLevel{0}; // of the latest sound buffer, 0 to 1
    std::atomic<bool> hasTimecode{false};
    std::atomic<uint32_t> timecode{0}; // hours, minutes, seconds, frames, a byte each
    std::atomic<unsigned long> width{0}, height{0}, pixelFormat{0};

    // The tape transport as the command last saw it (NoteTransport). While a tape winds no
    // pictures come and none are due; fast play runs the timecode backwards or skips it.
    std::atomic<bool> winding{false};
    std::atomic<bool> woundSinceFrame{false}; // set while winding, taken by the next frame
    std::atomic<bool> timecodeSteady{true};   // playing or stopped: each frame's follows on
    std::atomic<double> windingSeconds{0};
    double transportSeen = 0; // when NoteTransport last ran, on its thread only

    // Timecode breaks: a frame whose timecode does not follow on from the one before, while the
    // tape plays at normal speed. The first few are kept (before, after) for the summary.
    static constexpr size_t kBreaksKept = 10;
    std::atomic<uint64_t> timecodeBreaks{0};
    std::vector<std::pair<uint32_t, uint32_t>> breaks; // video thread only while capturing
    std::atomic<uint32_t> firstTimecode{0};
    long long timecodeNumber = 0; // the latest timecode's frame number

    // Frame timing, on the video thread only. The count of dropped frames starts again after
    // each wind, on top of what was dropped before it.
    double stretchStart = 0; // the first frame since capture began or the tape last wound
    uint64_t stretchFrames = 0, droppedBefore = 0;
    double lastFrameTime = 0;
    GapHistogram gaps;

    // Sound timing, on the audio thread only.
    double firstSoundTime = 0;
    uint64_t soundBeforeFirst = 0; // the first buffer's frames: captured before it came

    // A copy of one frame when asked for.
    std::atomic<bool> snapshotWanted{false};
    std::atomic<bool> snapshotTaken{false};
    std::mutex snapshotMutex;
    CapturedFrame snapshot;
};

// The callbacks given to the library; data is a CaptureStats*.
void CountVideoFrame(const unsigned char* pixels, unsigned long pixelFormat, unsigned long width,
                     unsigned long height, unsigned long bytesPerRow, const struct SMPTETime* time,
                     long data);
void CountAudioSamples(const unsigned char* samples, unsigned int formatFlags,
                       unsigned long sampleRate, unsigned long channels,
                       unsigned long bytesPerSample, unsigned long sampleFrames, long data);

// Tells the counting what the deck's transport is doing (a TavixDeviceTransportMode), at time
// `now`; called now and then by the thread that shows the figures.
void NoteTransport(CaptureStats& stats, int transportMode, double now);

// hours, minutes, seconds and frames packed a byte each, as "HH:MM:SS:FF".
std::string TimecodeText(uint32_t packed);

// Seconds on a monotonic clock.
double MonotonicSeconds();

// The pictures of the device's current or last recording that the recorder did not write (its
// encoder fell behind, or the file failed); 0 when it has not recorded.
unsigned long PicturesNotRecorded(unsigned long device);
