#include "llib/gen/llibbase.h"

#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <thread>

TEST(TickCount, FollowsTheTimeOfDayInMillisecondsAndMeasuresSpans) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const unsigned int expected = static_cast<unsigned int>(
        static_cast<unsigned long long>(now.tv_sec) * 1000u + now.tv_usec / 1000u);
    EXPECT_LE(GetTickCount() - expected, 100u);

    const unsigned int begin = GetTickCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const unsigned int elapsed = GetTickCount() - begin;
    EXPECT_GE(elapsed, 99u);
    EXPECT_LT(elapsed, 2000u);
}

TEST(Randomize, SeedsDifferentlyOverTime) {
    randomize();
    const int first = rand();
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    randomize();
    const int second = rand();
    EXPECT_NE(first, second);
}
