// Wall-clock spans for tests that check how long a wait took.
#pragma once

#include <chrono>

using Clock = std::chrono::steady_clock;

inline double MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}
