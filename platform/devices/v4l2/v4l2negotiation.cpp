#include "platform/devices/v4l2/v4l2negotiation.h"

#include <algorithm>

V4L2FrameSize V4L2NearestSize(const V4L2Format& format, uint32_t width, uint32_t height) {
    const V4L2FrameSize* covering = nullptr;
    const V4L2FrameSize* largest = nullptr;
    for (const V4L2FrameSize& size : format.sizes) {
        if (size.width == width && size.height == height)
            return size;
        uint64_t area = uint64_t(size.width) * size.height;
        if (size.width >= width && size.height >= height &&
            (!covering || area < uint64_t(covering->width) * covering->height))
            covering = &size;
        if (!largest || area > uint64_t(largest->width) * largest->height)
            largest = &size;
    }
    if (covering)
        return *covering;
    if (largest)
        return *largest;
    return {width, height, {}};
}

V4L2Fraction V4L2FastestInterval(const V4L2FrameSize& size) {
    V4L2Fraction best;
    for (const V4L2Fraction& interval : size.intervals)
        if (interval.numerator != 0 &&
            (best.numerator == 0 || interval.framesPerSecond() > best.framesPerSecond()))
            best = interval;
    return best;
}

std::vector<platform::FrameRates> V4L2RatesOf(const V4L2FrameSize& size) {
    std::vector<platform::FrameRates> rates;
    auto interval = [](const V4L2Fraction& f) {
        return platform::FrameInterval{f.numerator, f.denominator};
    };
    if (size.intervalRange && size.intervals.size() == 2) {
        rates.push_back(
            {interval(size.intervals[0]), interval(size.intervals[1]), interval(size.step)});
        return rates;
    }
    for (const V4L2Fraction& offered : size.intervals)
        rates.push_back({interval(offered), {}, {}});
    return rates;
}

V4L2Fraction V4L2IntervalFor(const V4L2FrameSize& size, double framesPerSecond) {
    platform::FrameInterval chosen =
        platform::NearestOfferedInterval(V4L2RatesOf(size), std::max(0.0, framesPerSecond));
    if (chosen.IsEmpty())
        chosen = platform::IntervalForRate(framesPerSecond);
    return {chosen.numerator, chosen.denominator};
}

namespace {

// The fastest rate offered at the size nearest to the wish; a format that states no intervals
// counts as meeting any wish (the driver decides).
double RateNear(const V4L2Format& format, uint32_t width, uint32_t height, double wish) {
    V4L2FrameSize size = V4L2NearestSize(format, width, height);
    if (size.intervals.empty())
        return wish;
    return V4L2FastestInterval(size).framesPerSecond();
}

} // namespace

const V4L2Format* V4L2ChooseFormat(const std::vector<V4L2Format>& formats, uint32_t wanted,
                                   uint32_t width, uint32_t height, double framesPerSecond,
                                   const std::function<bool(uint32_t fourcc)>& usable) {
    for (const V4L2Format& format : formats)
        if (wanted && format.fourcc == wanted && usable(format.fourcc))
            return &format;
    // Rates are compared with a little slack: 29.97 meets a wish of 30.
    double enough = framesPerSecond * 0.99;
    for (bool compressed : {false, true})
        for (const V4L2Format& format : formats)
            if (format.compressed == compressed && usable(format.fourcc) &&
                RateNear(format, width, height, framesPerSecond) >= enough)
                return &format;
    const V4L2Format* fastest = nullptr;
    double fastestRate = -1;
    for (const V4L2Format& format : formats) {
        if (!usable(format.fourcc))
            continue;
        double rate = RateNear(format, width, height, framesPerSecond);
        if (rate > fastestRate) {
            fastest = &format;
            fastestRate = rate;
        }
    }
    return fastest;
}
