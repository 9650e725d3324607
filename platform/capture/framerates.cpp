// Frame rates as exact intervals, and the choice of the offered rate nearest to a wish, shared by
// every backend so that all of them settle a wish the same way.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "platform/devicebackend.h"

namespace platform {

namespace {

constexpr double kHighestRate = 1000;

// numerator / denominator reduced, or empty when it does not fit 32 bits even then.
FrameInterval Reduced(uint64_t numerator, uint64_t denominator) {
    const uint64_t common = std::gcd(numerator, denominator);
    if (common > 1) {
        numerator /= common;
        denominator /= common;
    }
    if (numerator == 0 || denominator == 0 || numerator > UINT32_MAX || denominator > UINT32_MAX)
        return FrameInterval();
    return {uint32_t(numerator), uint32_t(denominator)};
}

double Seconds(const FrameInterval& interval) {
    return double(interval.numerator) / interval.denominator;
}

// The step of `range` nearest to `framesPerSecond`, never outside the range.
FrameInterval NearestInRange(const FrameRates& range, double framesPerSecond) {
    const FrameInterval& fastest = range.fastest;
    const FrameInterval& slowest = range.slowest;
    const double wanted = 1 / framesPerSecond;
    if (wanted <= Seconds(fastest))
        return fastest;
    if (wanted >= Seconds(slowest))
        return slowest;
    if (range.step.IsEmpty()) {
        // Any interval: the wish itself, unless it cannot be written as a fraction.
        const FrameInterval exact = IntervalForRate(framesPerSecond);
        return exact.IsEmpty() ? fastest : exact;
    }
    // The steps either side of the wish, the nearer in frames per second taken (rates are not
    // evenly spaced across steps of time).
    const double stepSeconds = Seconds(range.step);
    const double lastStep = std::floor((Seconds(slowest) - Seconds(fastest)) / stepSeconds + 1e-9);
    const double below = std::min(lastStep, std::floor((wanted - Seconds(fastest)) / stepSeconds));
    FrameInterval best;
    for (double steps : {below, std::min(lastStep, below + 1)}) {
        // fastest + steps * step, over a common denominator.
        const uint64_t numerator = uint64_t(fastest.numerator) * range.step.denominator +
                                   uint64_t(steps) * range.step.numerator * fastest.denominator;
        const FrameInterval stepped =
            Reduced(numerator, uint64_t(fastest.denominator) * range.step.denominator);
        if (!stepped.IsEmpty() &&
            (best.IsEmpty() || std::fabs(stepped.FramesPerSecond() - framesPerSecond) <
                                   std::fabs(best.FramesPerSecond() - framesPerSecond)))
            best = stepped;
    }
    return best.IsEmpty() ? fastest : best;
}

} // namespace

FrameInterval IntervalForRate(double framesPerSecond) {
    if (!std::isfinite(framesPerSecond) || framesPerSecond <= 0 || framesPerSecond > kHighestRate)
        return FrameInterval();
    const double whole = std::round(framesPerSecond);
    if (whole >= 1 && std::fabs(framesPerSecond - whole) < 1e-6)
        return {1, uint32_t(whole)};
    // 30000/1001 and its kin, written as 29.97, 59.94, 23.976...
    const double ntsc = std::round(framesPerSecond * 1.001);
    if (ntsc >= 1 && std::fabs(framesPerSecond - ntsc * 1000 / 1001) < 5e-4)
        return {1001, uint32_t(ntsc) * 1000};
    const double milli = std::round(framesPerSecond * 1000);
    return Reduced(1000, uint64_t(milli));
}

FrameInterval NearestOfferedInterval(const std::vector<FrameRates>& offered,
                                     double framesPerSecond) {
    FrameInterval best;
    for (const FrameRates& rates : offered) {
        if (rates.fastest.IsEmpty())
            continue;
        FrameInterval candidate = rates.fastest;
        if (framesPerSecond > 0 && rates.IsRange())
            candidate = NearestInRange(rates, framesPerSecond);
        if (best.IsEmpty()) {
            best = candidate;
            continue;
        }
        // Without a wish the fastest wins; with one the nearest, the faster of two as near.
        const double gained = framesPerSecond > 0
                                  ? std::fabs(best.FramesPerSecond() - framesPerSecond) -
                                        std::fabs(candidate.FramesPerSecond() - framesPerSecond)
                                  : candidate.FramesPerSecond() - best.FramesPerSecond();
        if (gained > 1e-9 ||
            (std::fabs(gained) <= 1e-9 && candidate.FramesPerSecond() > best.FramesPerSecond()))
            best = candidate;
    }
    return best;
}

} // namespace platform
