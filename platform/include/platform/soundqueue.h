// Captured sound waiting for the session's capture thread: pieces of interleaved sample frames,
// each with the time of its first frame. Backends that capture on a thread of their own (ALSA,
// PipeWire) queue here and their Read takes from here. Not locked: the owner's lock guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace platform {

class SoundQueue {
public:
    struct Piece {
        std::vector<uint8_t> bytes;
        size_t frames = 0;
        double time = 0; // seconds on the monotonic clock
    };

    // Appends `piece`; while more than `mostFrames` would wait, the oldest pieces are dropped,
    // so a reader that falls that far behind loses sound (the gap in times tells) instead of
    // falling ever further behind.
    void Push(Piece piece, size_t mostFrames);
    bool Empty() const { return pieces.empty(); }
    void Clear();
    // The oldest piece, joined with the pieces right behind it as far as they follow on without
    // a gap and the result fits the host's conversion area in any sample format: a reader that
    // fell behind (a busy machine) catches up with fewer, larger buffers. Empty when none waits.
    Piece Pop(double sampleRate, uint32_t channels);

private:
    std::deque<Piece> pieces;
    size_t frames = 0;
};

} // namespace platform
