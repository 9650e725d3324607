#include "llib/gen/llibbase.h"

#include <cstdlib>
#include <ctime>
#include <sys/time.h>

unsigned int GetTickCount() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned int>(static_cast<unsigned long long>(now.tv_sec) * 1000u +
                                     static_cast<unsigned long long>(now.tv_usec) / 1000u);
}

void randomize() {
    srand(GetTickCount());
    srand(static_cast<unsigned int>(time(nullptr)) ^ static_cast<unsigned int>(rand()));
}
