#include "tapetransport.h"

#include <algorithm>
#include <cmath>
#include <cstring>

TapeTransport::TapeTransport(double framesPerSecond) : rate(framesPerSecond) {}

platform::TransportState TapeTransport::State(double now) {
    std::lock_guard<std::mutex> locked(mutex);
    StopAtStart(now);
    return current.state;
}

void TapeTransport::StopAtStart(double at) {
    if (current.state.speed >= 0 || at <= current.anchorTime || current.PositionAt(rate, at) > 0)
        return;
    // The stop takes effect from when the tape reached its start.
    const double reached = current.anchorTime - current.anchorPosition / current.Speed(rate);
    previous = current;
    current.anchorPosition = 0;
    current.anchorTime = reached;
    current.state = platform::TransportState();
}

double TapeTransport::Stretch::Speed(double framesPerSecond) const {
    if (state.playbackMode == 1)
        return state.speed / 10000.0 * framesPerSecond;
    return state.speed / 1000.0 * framesPerSecond;
}

double TapeTransport::Stretch::PositionAt(double framesPerSecond, double at) const {
    return std::max(0.0, anchorPosition + Speed(framesPerSecond) * (at - anchorTime));
}

void TapeTransport::SetState(const platform::TransportState& newState, double now) {
    std::lock_guard<std::mutex> locked(mutex);
    previous = current;
    current.anchorPosition = previous.PositionAt(rate, now);
    current.anchorTime = now;
    current.state = newState;
}

void TapeTransport::Cue(double seconds, double now) {
    std::lock_guard<std::mutex> locked(mutex);
    StopAtStart(now);
    previous = current;
    current.anchorPosition = std::max(0.0, seconds * rate);
    current.anchorTime = now;
}

TapeTransport::Frame TapeTransport::At(double at) {
    Frame frame;
    std::lock_guard<std::mutex> locked(mutex);
    StopAtStart(at);
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
    time.mCounter = static_cast<UInt32>(frame.position);
    // The second session's timecode counts on from an hour where it begins.
    const long long perHour = perSecond * 3600;
    const long long secondSession = std::llround(kSecondSessionSeconds * rate);
    const long long position =
        frame.position < secondSession ? frame.position : frame.position - secondSession + perHour;
    time.mFrames = static_cast<SInt16>(position % perSecond);
    const long long seconds = position / perSecond;
    time.mSeconds = static_cast<SInt16>(seconds % 60);
    time.mMinutes = static_cast<SInt16>((seconds / 60) % 60);
    time.mHours = static_cast<SInt16>((seconds / 3600) % 24);
    return frame;
}
