#include "tapetransport.h"

#include <algorithm>
#include <cmath>
#include <cstring>

TapeTransport::TapeTransport(double framesPerSecond) : rate(framesPerSecond) {}

platform::TransportState TapeTransport::State() const {
    std::lock_guard<std::mutex> locked(mutex);
    return current.state;
}

double TapeTransport::Stretch::PositionAt(double framesPerSecond, double at) const {
    double framesPerFrame = 0;
    if (state.playbackMode == 1)
        framesPerFrame = state.speed / 10000.0;
    else if (state.speed != 0)
        framesPerFrame = state.speed / 1000.0;
    return std::max(0.0, anchorPosition + framesPerFrame * framesPerSecond * (at - anchorTime));
}

void TapeTransport::SetState(const platform::TransportState& newState, double now) {
    std::lock_guard<std::mutex> locked(mutex);
    previous = current;
    current.anchorPosition = previous.PositionAt(rate, now);
    current.anchorTime = now;
    current.state = newState;
}

TapeTransport::Frame TapeTransport::At(double at) const {
    Frame frame;
    std::lock_guard<std::mutex> locked(mutex);
    const Stretch& stretch = at < current.anchorTime ? previous : current;
    frame.position = static_cast<long long>(std::floor(stretch.PositionAt(rate, at) + 1e-9));
    frame.pictures = stretch.state.playbackMode == 1 || stretch.state.speed == 0;

    SMPTETime& time = frame.timecode;
    memset(&time, 0, sizeof time);
    const long long perSecond = static_cast<long long>(std::lround(rate));
    time.mType = perSecond == 25   ? kSMPTETimeType25
                 : perSecond == 24 ? kSMPTETimeType24
                                   : kSMPTETimeType30;
    time.mFlags = kSMPTETimeValid;
    if (stretch.state.speed != 0)
        time.mFlags |= kSMPTETimeRunning;
    const long long position = frame.position;
    time.mCounter = static_cast<UInt32>(position);
    time.mFrames = static_cast<SInt16>(position % perSecond);
    const long long seconds = position / perSecond;
    time.mSeconds = static_cast<SInt16>(seconds % 60);
    time.mMinutes = static_cast<SInt16>((seconds / 60) % 60);
    time.mHours = static_cast<SInt16>((seconds / 3600) % 24);
    return frame;
}
