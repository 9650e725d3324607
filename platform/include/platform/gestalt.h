// The system-information query the library asks for the operating-system version. On Linux the
// answer is the compatibility level this platform layer provides, not the kernel's version.
#pragma once

#include "platform/mactypes.h"

enum : OSErr { gestaltUndefSelectorErr = -5551 };

// 'sysv': the system version, packed decimal (10.6.8 is 0x1068).
constexpr OSType gestaltSystemVersion = 0x73797376;

// The compatibility level reported for 'sysv' unless a test changes it.
constexpr SInt32 kPlatformSystemVersion = 0x1068;

// Answers selector into *response: noErr, or gestaltUndefSelectorErr for a selector it does not
// know (then *response is unchanged). A null response gets the error too. Any thread.
OSErr Gestalt(OSType selector, SInt32* response);

// Test control: the 'sysv' value Gestalt reports from now on.
void PlatformSetSystemVersion(SInt32 version);
