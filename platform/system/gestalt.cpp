#include "platform/gestalt.h"

#include <atomic>

namespace {
std::atomic<SInt32> systemVersion{kPlatformSystemVersion};
}

OSErr Gestalt(OSType selector, SInt32* response) {
    if (selector != gestaltSystemVersion || response == nullptr)
        return gestaltUndefSelectorErr;
    *response = systemVersion.load(std::memory_order_relaxed);
    return noErr;
}

void PlatformSetSystemVersion(SInt32 version) {
    systemVersion.store(version, std::memory_order_relaxed);
}
