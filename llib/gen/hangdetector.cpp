#include "llib/gen/hangdetector.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <ctime>

#include "llib/gen/file.h"
#include "llib/gen/llibbase.h"
#include "llib/mac/genutils.h"

// Built after the status line and before the thread table's lock, so that its exit-time
// destructor runs after theirs.
LHangDetector gLHangDetector __attribute__((init_priority(1004)));

LHangDetector::LHangDetector() : szPath{} {}

LHangDetector::~LHangDetector() {
    file.Close();
    if (szPath[0] != 0)
        unlink(szPath);
}

void LHangDetector::InitAndTest() {
    const uint32_t stamp[2] = {static_cast<uint32_t>(time(nullptr)),
                               static_cast<uint32_t>(GetTickCount())};
    char user[260];
    LGetUserName(user);
    char name[260];
    // 11 + 248 characters: the 260-byte bound, written so the compiler sees it.
    snprintf(name, sizeof name, "_LTavix_rl_%.248s", user);
    LFile::_MakeFilePath(szPath, "/var/tmp/", name, "");
    if (file.OpenNew(szPath)) {
        file._Write(stamp, sizeof stamp);
        return;
    }
    // The marker exists: stale unless a live process holds its exclusive lock.
    LReadFile marker(szPath);
    if (!marker.IsValid())
        return;
    uint32_t previous[2] = {0, 0};
    marker._Read(previous, sizeof previous); // the stamp of the run that never ended
    marker.Close();
    unlink(szPath);
}

void LHangDetector::Reset() {
    file.Close();
    if (szPath[0] != 0)
        unlink(szPath);
}

void LDebugHangDetectorInit() {
    gLHangDetector.InitAndTest();
}

void LDebugHangDetectorDestroy() {
    gLHangDetector.Reset();
}
