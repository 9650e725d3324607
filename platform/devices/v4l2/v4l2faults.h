// What a V4L2 stream does about a driver that misbehaves while it captures: frame times that do
// not follow the monotonic clock (offset, or wrapping around), and streaming that fails for good
// while the device is still there.
#pragma once

#include <string>

// Turns the times a driver stamps on its frames into times on the monotonic clock, the time
// base of every sample. A driver stamping with the monotonic clock keeps its own times, which
// are more exact than the time of dequeueing. A stamp ahead of the clock starts a new reckoning
// from the time the frame is dequeued; one not after the previous frame's (the driver's counter
// wrapped around) follows the previous frame by the time between their dequeueings, so the
// frames' spacing goes on undisturbed. The frames after either keep the driver's spacing from
// there. One per stream, used by its capture thread.
class V4L2FrameClock {
public:
    // The monotonic time of a frame stamped `driverTime` seconds (0 when the driver does not
    // stamp; negative when its count wrapped past its signed end) and dequeued at monotonic
    // time `now`.
    double timeOf(double driverTime, double now);

private:
    bool anchored = false;
    double offset = 0;  // added to the driver's times
    double last = 0;    // the previous frame's time
    double lastNow = 0; // when the previous frame was dequeued
};

// Devices whose capture failed and cannot go on (the driver refused to start streaming, or its
// queue broke while streaming) while the failed stream is still held: such a device reports
// itself as not connected, so that a host does what it does for a lost device, stops capture.
// Letting go of the stream ends the report. Any thread.
void V4L2SetStreamFailed(const std::string& uniqueId, bool failed);
bool V4L2StreamFailed(const std::string& uniqueId);
