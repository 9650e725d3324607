#include "previewfeed.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "llib/mac/tavix.h"

namespace {

bool IsPlanar420(unsigned long pixelFormat) {
    return pixelFormat == 0x34323076 /* '420v' */ || pixelFormat == 0x34323066 /* '420f' */ ||
           pixelFormat == 0x79343230 /* 'y420' */;
}

} // namespace

void PreviewVideoFrame(const unsigned char* pixels, unsigned long pixelFormat, unsigned long width,
                       unsigned long height, unsigned long bytesPerRow, const SMPTETime* time,
                       long data) {
    PreviewFeed& feed = *reinterpret_cast<PreviewFeed*>(data);
    // Restarting capture to end a recording attaches a new callback while the old one may
    // still be running, so the frame timing the counting keeps is guarded too.
    std::lock_guard<std::mutex> locked(feed.mutex);
    CountVideoFrame(pixels, pixelFormat, width, height, bytesPerRow, time,
                    reinterpret_cast<long>(&feed.stats));
    if (pixels == nullptr)
        return;
    // The 4:2:0 formats keep their chroma after the luma rows, in the same block.
    const unsigned long bytes =
        IsPlanar420(pixelFormat) ? bytesPerRow * height * 3 / 2 : bytesPerRow * height;
    feed.newest.pixels.assign(pixels, pixels + bytes);
    feed.newest.pixelFormat = pixelFormat;
    feed.newest.width = width;
    feed.newest.height = height;
    feed.newest.bytesPerRow = bytesPerRow;
    ++feed.newestNumber;
}

void PreviewAudioSamples(const unsigned char* samples, unsigned int formatFlags,
                         unsigned long sampleRate, unsigned long channels,
                         unsigned long bytesPerSample, unsigned long sampleFrames, long data) {
    PreviewFeed& feed = *reinterpret_cast<PreviewFeed*>(data);
    std::lock_guard<std::mutex> locked(feed.mutex);
    feed.stats.sampleFrames += sampleFrames;
    feed.soundArrived = true;
    if (samples == nullptr || !(formatFlags & 1) || bytesPerSample != 4 || channels == 0)
        return;
    const unsigned long perColumn =
        std::max(1ul, static_cast<unsigned long>(sampleRate * kWaveColumnSeconds));
    for (unsigned long frame = 0; frame < sampleFrames; ++frame) {
        float mixed = 0;
        for (unsigned long channel = 0; channel < channels; ++channel) {
            float value;
            memcpy(&value, samples + (frame * channels + channel) * 4, 4);
            float& peak = feed.peaks[std::min(channel, 1ul)];
            peak = std::max(peak, std::fabs(value));
            mixed += value;
        }
        mixed /= static_cast<float>(channels);
        if (feed.columnFrames == 0)
            feed.column.low = feed.column.high = mixed;
        feed.column.low = std::min(feed.column.low, mixed);
        feed.column.high = std::max(feed.column.high, mixed);
        if (++feed.columnFrames == perColumn) {
            // A window that stopped looking must not make the list grow without end.
            if (feed.columns.size() < 1000)
                feed.columns.push_back(feed.column);
            feed.columnFrames = 0;
        }
    }
    if (channels == 1)
        feed.peaks[1] = feed.peaks[0];
}

bool TakeNewestFrame(PreviewFeed& feed, CapturedFrame& frame, uint64_t& number) {
    std::lock_guard<std::mutex> locked(feed.mutex);
    if (feed.newestNumber == number)
        return false;
    std::swap(feed.newest, frame);
    number = feed.newestNumber;
    return true;
}

TakenSound TakeSound(PreviewFeed& feed) {
    TakenSound taken;
    std::lock_guard<std::mutex> locked(feed.mutex);
    taken.arrived = feed.soundArrived;
    for (int channel = 0; channel < 2; ++channel) {
        taken.peaks[channel] = feed.peaks[channel];
        feed.peaks[channel] = 0;
    }
    taken.columns.swap(feed.columns);
    return taken;
}

double PeakToDB(float peak) {
    return peak <= 0 ? LevelMeter::kFloorDB
                     : std::max(LevelMeter::kFloorDB, 20 * std::log10(static_cast<double>(peak)));
}

void LevelMeter::Feed(float peak, double now) {
    const double elapsed = lastFeed > 0 ? now - lastFeed : 0;
    lastFeed = now;
    const double db = PeakToDB(peak);
    levelDB = std::max(db, std::max(kFloorDB, levelDB - 24 * elapsed));
    if (db >= holdDB) {
        holdDB = db;
        holdTime = now;
    } else if (now - holdTime > 2) {
        holdDB = std::max(levelDB, std::max(kFloorDB, holdDB - 24 * elapsed));
    }
}
