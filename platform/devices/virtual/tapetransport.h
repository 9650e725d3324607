// The virtual deck's tape: where it is and how it moves. Playing moves the tape at the speed
// asked (10000 is normal), winding (not playing, speed not 0) moves it a tenth of the speed
// value in frames per frame time, so fast forward and rewind run at 19 times normal speed;
// stop holds it. A tape wound or played back to its start stops there, as a deck does.
// The tape was recorded in two sessions: the first from its start, with timecode from
// 00:00:00:00; the second from kSecondSessionSeconds on, by a recorder whose timecode was preset
// to 01:00:00:00. So the timecode jumps there while the tape plays, as it does on many tapes
// that come to be digitised.
// Thread-safe.
#pragma once

#include <mutex>

#include "platform/coreaudio.h"
#include "platform/devicebackend.h"

class TapeTransport {
public:
    static constexpr double kSecondSessionSeconds = 3.0;
    explicit TapeTransport(double framesPerSecond);
    // The state at time `now`: stopped once the tape has run back to its start.
    platform::TransportState State(double now);
    void SetState(const platform::TransportState& state, double now);
    // Puts the tape `seconds` from its start at time `now`, in whatever motion it is in.
    void Cue(double seconds, double now);
    // The tape at time `at`, as the transport state in effect then moved it: a frame that fell
    // due before the last change but is made after it still shows the tape as it was.
    struct Frame {
        long long position = 0; // whole frames
        bool pictures = true;   // pictures come out (not while winding)
        SMPTETime timecode{};
    };
    Frame At(double at);

private:
    // One stretch of constant motion: the state set at anchorTime, the tape then at
    // anchorPosition.
    struct Stretch {
        platform::TransportState state;
        double anchorPosition = 0; // frames
        double anchorTime = 0;
        double Speed(double rate) const; // frames per second, negative backwards
        double PositionAt(double rate, double at) const;
    };
    // Stops the tape where it reached its start running backwards by time `at`.
    void StopAtStart(double at);
    mutable std::mutex mutex;
    double rate;
    Stretch current, previous;
};
