// Choosing what to ask a camera for: the pixel format, the frame size nearest to a wish, the
// frame interval at that size. Pure functions over the driver's enumeration.
#pragma once

#include "platform/devicebackend.h"
#include "platform/devices/v4l2/v4l2camera.h"

#include <functional>

// The offered size nearest to the wish: an exact match; else the smallest size covering the wish
// in both dimensions (scaled down afterwards); else the largest size (scaled up). A format
// without sizes gives the wish back.
V4L2FrameSize V4L2NearestSize(const V4L2Format& format, uint32_t width, uint32_t height);

// The shortest interval (the most frames per second) offered at a size: a camera streams as
// fast as it can at the size it was given. An empty fraction when none is offered.
V4L2Fraction V4L2FastestInterval(const V4L2FrameSize& size);

// The rates offered at a size, as the platform states them: each discrete interval, or the
// driver's one range. Empty when the driver states none.
std::vector<platform::FrameRates> V4L2RatesOf(const V4L2FrameSize& size);

// The interval to ask for at a size: the fastest offered for no wish (0), else the offered one
// nearest to `framesPerSecond`. A size without stated intervals gets the wish as it is (the
// driver adjusts it), or nothing for no wish.
V4L2Fraction V4L2IntervalFor(const V4L2FrameSize& size, double framesPerSecond);

// The format to capture in, or null when none fits. `wanted` (a V4L2 fourcc, 0 for no wish) wins
// when the camera offers it and `usable` accepts it. Otherwise, among the formats `usable`
// accepts: the first whose nearest size to the wish reaches `framesPerSecond` (uncompressed
// before compressed, each in the driver's order); failing that, the fastest at its nearest size.
const V4L2Format* V4L2ChooseFormat(const std::vector<V4L2Format>& formats, uint32_t wanted,
                                   uint32_t width, uint32_t height, double framesPerSecond,
                                   const std::function<bool(uint32_t fourcc)>& usable);
