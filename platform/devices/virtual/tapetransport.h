// The virtual deck's tape: where it is and how it moves. Playing moves the tape at the speed
// asked (10000 is normal), winding (not playing, speed not 0) moves it a tenth of the speed
// value in frames per frame time, so fast forward and rewind run at 19 times normal speed;
// stop holds it. The tape cannot go before its start. Thread-safe.
#pragma once

#include <mutex>

#include "platform/coreaudio.h"
#include "platform/devicebackend.h"

class TapeTransport {
public:
    explicit TapeTransport(double framesPerSecond);
    platform::TransportState State() const;
    void SetState(const platform::TransportState& state, double now);
    // The tape position, in whole frames, at time now.
    long long Position(double now) const;
    // Whether pictures of the tape come out at time now (not while winding).
    bool DeliversPictures() const;
    // The timecode of a frame position.
    SMPTETime Timecode(long long position) const;

private:
    double PositionAt(double now) const;
    mutable std::mutex mutex;
    double rate;
    platform::TransportState state;
    double anchorPosition = 0; // frames, at anchorTime
    double anchorTime = 0;
};
