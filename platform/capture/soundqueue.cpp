#include "platform/soundqueue.h"

#include <algorithm>
#include <cmath>

namespace platform {
namespace {

// What one read hands on at the most: the host converts it in one area of this size, at up to
// eight bytes a sample.
constexpr size_t kConversionBytes = 65535;
constexpr size_t kMostFramesPerRead = 4800;
// Pieces whose times differ from back to back by less than this follow each other.
constexpr double kContiguousSeconds = 0.005;

} // namespace

void SoundQueue::Push(Piece piece, size_t mostFrames) {
    while (!pieces.empty() && frames + piece.frames > mostFrames) {
        frames -= pieces.front().frames;
        pieces.pop_front();
    }
    frames += piece.frames;
    pieces.push_back(std::move(piece));
}

void SoundQueue::Clear() {
    pieces.clear();
    frames = 0;
}

SoundQueue::Piece SoundQueue::Pop(double sampleRate, uint32_t channels) {
    if (pieces.empty())
        return Piece();
    Piece current = std::move(pieces.front());
    pieces.pop_front();
    frames -= current.frames;
    const size_t most = std::min<size_t>(kMostFramesPerRead,
                                         kConversionBytes / (std::max<uint32_t>(channels, 1) * 8));
    while (!pieces.empty() && current.frames + pieces.front().frames <= most &&
           std::fabs(pieces.front().time - current.time - double(current.frames) / sampleRate) <
               kContiguousSeconds) {
        Piece& next = pieces.front();
        current.bytes.insert(current.bytes.end(), next.bytes.begin(), next.bytes.end());
        current.frames += next.frames;
        frames -= next.frames;
        pieces.pop_front();
    }
    return current;
}

} // namespace platform
