/* SMPTETime: the 24-byte SMPTE timecode record the capture interface hands to hosts, laid out
   as the desktop system's audio framework lays it out. Usable from C and C++. */
#ifndef LLIB_MAC_SMPTETIME_H
#define LLIB_MAC_SMPTETIME_H

#include <stdint.h>

typedef struct SMPTETime {
    int16_t mSubframes;
    int16_t mSubframeDivisor;
    uint32_t mCounter;
    uint32_t mType;  /* the SMPTE time type: 0 24 fps, 1 25, 2 30 drop, 3 30, 4 29.97, ... */
    uint32_t mFlags; /* 1 valid, 2 running */
    int16_t mHours;
    int16_t mMinutes;
    int16_t mSeconds;
    int16_t mFrames;
} SMPTETime;

#endif
