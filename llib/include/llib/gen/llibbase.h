// The utility layer's base module: the millisecond clock and the random seed.
#pragma once

// The time of day in milliseconds (seconds * 1000 + microseconds / 1000), wrapping at 32 bits.
// Wall-clock based, so it jumps when the clock is set; compute elapsed times by unsigned
// subtraction, which stays right across one wrap. Any thread.
unsigned int GetTickCount();

// Seeds the C library's random generator from the clock: srand(GetTickCount()), then
// srand(time(nullptr) ^ rand()).
void randomize();
