#include "platform/devices/v4l2/v4l2faults.h"

#include <algorithm>
#include <map>
#include <mutex>

namespace {

// A driver's stamp is taken before the frame is dequeued; this much ahead of the clock is only
// rounding.
constexpr double kAheadTolerance = 0.001;
// A first frame stamped further in the past than this is taken as stamped by another clock.
constexpr double kFirstFrameMaxAge = 2.0;
// Frames dequeued together after a wrap are this far apart at least.
constexpr double kLeastStep = 1e-6;

std::mutex gFailedMutex;
std::map<std::string, int> gFailed; // failed streams held, by device unique id

} // namespace

double V4L2FrameClock::timeOf(double driverTime, double now) {
    const double previous = last, previousNow = lastNow;
    lastNow = now;
    // Zero is no stamp; a negative one is a 64-bit nanosecond count past its signed end.
    if (driverTime == 0)
        return last = now;
    if (!anchored) {
        anchored = true;
        const bool monotonic =
            driverTime <= now + kAheadTolerance && driverTime >= now - kFirstFrameMaxAge;
        offset = monotonic ? 0 : now - driverTime;
        return last = driverTime + offset;
    }
    double time = driverTime + offset;
    if (time > now + kAheadTolerance || time <= previous) {
        time = time > now ? now : previous + std::max(now - previousNow, kLeastStep);
        offset = time - driverTime;
    }
    return last = time;
}

void V4L2SetStreamFailed(const std::string& uniqueId, bool failed) {
    std::lock_guard<std::mutex> locked(gFailedMutex);
    if (failed) {
        ++gFailed[uniqueId];
        return;
    }
    auto found = gFailed.find(uniqueId);
    if (found != gFailed.end() && --found->second <= 0)
        gFailed.erase(found);
}

bool V4L2StreamFailed(const std::string& uniqueId) {
    std::lock_guard<std::mutex> locked(gFailedMutex);
    return gFailed.count(uniqueId) != 0;
}
