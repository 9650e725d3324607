// A plain V4L2 capture loop, the fewest system calls that stream frames: the yardstick the
// benchmark holds the library's capture against.
#pragma once

#include <cstdint>
#include <string>

#include "platform/devices/v4l2/v4l2camera.h"

struct PlainCaptureFigures {
    bool ok = false;       // the node streamed
    std::string error;     // why not, when it did not
    int frames = 0;        // dequeued in the measured span (after the first frame)
    double seconds = 0;    // the measured span
    double cpuSeconds = 0; // this thread's CPU time in the span
};

// Streams `device` (its input selected when the node has several) as fourcc at width x height
// and the fastest rate offered for that size, dequeueing (blocking) and requeueing each frame;
// measures for `seconds` from the first frame on. Run it on a thread of its own per camera: CPU
// time is the calling thread's. With `pollFirst` it waits in poll() before each dequeue, as a
// loop that must be stoppable between frames does.
PlainCaptureFigures RunPlainV4L2Loop(const V4L2DeviceInfo& device, uint32_t fourcc, uint32_t width,
                                     uint32_t height, double seconds, bool pollFirst = false);
