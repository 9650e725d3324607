#include "llib/gen/llibbase.h"

#include <chrono>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <thread>

TEST(TickCount, FollowsTheTimeOfDayInMillisecondsAndMeasuresSpans) {
    const auto milliseconds = [] {
        timeval now{};
        gettimeofday(&now, nullptr);
        return static_cast<unsigned int>(static_cast<unsigned long long>(now.tv_sec) * 1000u +
                                         now.tv_usec / 1000u);
    };
    const unsigned int before = milliseconds();
    const unsigned int tick = GetTickCount();
    EXPECT_LE(tick - before, milliseconds() - before) << "read between the two times of day";

    const unsigned int begin = GetTickCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_GE(GetTickCount() - begin, 99u);
}
