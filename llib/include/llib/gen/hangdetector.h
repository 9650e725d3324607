// The hang detector's marker file (see LDebugHangDetectorInit in llib/gen/debug.h).
#pragma once

#include "llib/gen/debug.h"
#include "llib/unix/filehandle.h"

class LHangDetector {
public:
    LHangDetector();
    ~LHangDetector();
    LHangDetector(const LHangDetector&) = delete;
    LHangDetector& operator=(const LHangDetector&) = delete;

    // Creates the marker, stamped with the wall-clock seconds and the tick count, and keeps it
    // open and locked; when it cannot (it exists), deletes it if no live process holds it.
    void InitAndTest();
    // Closes and deletes the marker.
    void Reset();

    char szPath[260];
    LWriteFile file;
};

extern LHangDetector gLHangDetector;
