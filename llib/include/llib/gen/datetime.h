// Calendar time.
#pragma once

class LDateTime {
public:
    // The current time, seconds since 1970 (UTC).
    static long Now();
};
