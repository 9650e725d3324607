// Operating-system helpers of the utility layer.
#pragma once

// The operating-system version packed as the system reports it: major in two decimal digits in
// the high byte; minors up to 8 in the low byte's high nibble (10.4 is 0x1040), minors from 9 on
// in two decimal digits (10.9 is 0x1009, 10.10 is 0x1010).
unsigned short LMakeMacOSVersion(unsigned char major, unsigned char minor);

// True when the running system's version is major.minor or later. Any thread.
bool IsOSMacVersionOrLater(unsigned char major, unsigned char minor);

// 10.4 or later, and 10.5 or later; computed on the first call and kept for the process.
bool IsOSMacTigerOrLater();
bool IsOSMacLeopardOrLater();
