#include "tapetransport.h"

#include <algorithm>
#include <cmath>
#include <cstring>

TapeTransport::TapeTransport(double framesPerSecond) : rate(framesPerSecond) {}

platform::TransportState TapeTransport::State() const {
    std::lock_guard<std::mutex> locked(mutex);
    return state;
}

double TapeTransport::PositionAt(double now) const {
    double framesPerFrame = 0;
    if (state.playbackMode == 1)
        framesPerFrame = state.speed / 10000.0;
    else if (state.speed != 0)
        framesPerFrame = state.speed / 1000.0;
    return std::max(0.0, anchorPosition + framesPerFrame * rate * (now - anchorTime));
}

void TapeTransport::SetState(const platform::TransportState& newState, double now) {
    std::lock_guard<std::mutex> locked(mutex);
    anchorPosition = PositionAt(now);
    anchorTime = now;
    state = newState;
}

long long TapeTransport::Position(double now) const {
    std::lock_guard<std::mutex> locked(mutex);
    return static_cast<long long>(std::floor(PositionAt(now) + 1e-9));
}

bool TapeTransport::DeliversPictures() const {
    std::lock_guard<std::mutex> locked(mutex);
    return state.playbackMode == 1 || state.speed == 0;
}

SMPTETime TapeTransport::Timecode(long long position) const {
    SMPTETime time;
    memset(&time, 0, sizeof time);
    const long long perSecond = static_cast<long long>(std::lround(rate));
    time.mType = perSecond == 25   ? kSMPTETimeType25
                 : perSecond == 24 ? kSMPTETimeType24
                                   : kSMPTETimeType30;
    time.mFlags = kSMPTETimeValid;
    {
        std::lock_guard<std::mutex> locked(mutex);
        if (state.speed != 0)
            time.mFlags |= kSMPTETimeRunning;
    }
    time.mCounter = static_cast<UInt32>(position);
    time.mFrames = static_cast<SInt16>(position % perSecond);
    const long long seconds = position / perSecond;
    time.mSeconds = static_cast<SInt16>(seconds % 60);
    time.mMinutes = static_cast<SInt16>((seconds / 60) % 60);
    time.mHours = static_cast<SInt16>((seconds / 3600) % 24);
    return time;
}
