// What the capture threads hand to the preview window: the newest frame, the counts
// `tavix capture` keeps, and the sound's peaks and waveform since the window last looked. The
// callbacks fill it on the library's capture threads; the window takes from it on the main
// thread, which never calls into the library while holding its lock.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "capturestats.h"
#include "png.h"

// The lowest and highest sample of one stretch of sound (both channels mixed), -1 to 1.
struct WaveColumn {
    float low = 0, high = 0;
};

struct PreviewFeed {
    CaptureStats stats; // frames, dropped frames, timecode, sample frames

    std::mutex mutex;                // guards what follows, and stats' frame timing
    CapturedFrame newest;            // the latest frame, overwritten by the next
    uint64_t newestNumber = 0;       // frames put into newest so far
    float peaks[2] = {0, 0};         // largest magnitude per channel since the window took them
    std::vector<WaveColumn> columns; // finished waveform columns since then
    WaveColumn column;               // the column being filled
    unsigned long columnFrames = 0;  // sample frames in it
    bool soundArrived = false;
};

// A waveform column spans this many seconds of sound.
constexpr double kWaveColumnSeconds = 0.01;

// The callbacks given to the library; data is a PreviewFeed*. Sound must be 32-bit floats.
void PreviewVideoFrame(const unsigned char* pixels, unsigned long pixelFormat, unsigned long width,
                       unsigned long height, unsigned long bytesPerRow,
                       const struct SMPTETime* time, long data);
void PreviewAudioSamples(const unsigned char* samples, unsigned int formatFlags,
                         unsigned long sampleRate, unsigned long channels,
                         unsigned long bytesPerSample, unsigned long sampleFrames, long data);

// Moves the newest frame into `frame` (handing frame's buffer back for reuse) when one arrived
// after frame number `number`, and updates number; false when none did.
bool TakeNewestFrame(PreviewFeed& feed, CapturedFrame& frame, uint64_t& number);

struct TakenSound {
    bool arrived = false; // any sound since capture started
    float peaks[2] = {0, 0};
    std::vector<WaveColumn> columns;
};
TakenSound TakeSound(PreviewFeed& feed);

// A level meter's display: the level falls back at 24 dB a second after a peak, and the
// highest peak of the last two seconds stays marked before it falls too.
class LevelMeter {
public:
    static constexpr double kFloorDB = -60;
    void Feed(float peak, double now);
    double LevelDB() const { return levelDB; }
    double HoldDB() const { return holdDB; }

private:
    double levelDB = kFloorDB, holdDB = kFloorDB;
    double lastFeed = 0, holdTime = 0;
};

// Peak magnitude (0 to 1) in dBFS, at least LevelMeter::kFloorDB.
double PeakToDB(float peak);
