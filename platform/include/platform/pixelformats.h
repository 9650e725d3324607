// One table for the pixel formats: Core Video four-character codes, their V4L2 and FFmpeg
// equivalents, and how a frame of each is laid out in memory. Every backend and the
// conversion code use it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/mactypes.h"

enum : OSType {
    kCVPixelFormatType_422YpCbCr8 = 0x32767579,                   // '2vuy': U Y V Y
    kCVPixelFormatType_422YpCbCr8_yuvs = 0x79757673,              // 'yuvs': Y U Y V
    kCVPixelFormatType_32BGRA = 0x42475241,                       // 'BGRA'
    kCVPixelFormatType_32ARGB = 0x00000020,                       // 32: A R G B
    kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange = 0x34323076, // '420v': Y plane, CbCr plane
    kCVPixelFormatType_420YpCbCr8Planar = 0x79343230,             // 'y420': Y, Cb, Cr planes
    kCVPixelFormatType_24RGB = 0x00000018,                        // 24: R G B
    kCVPixelFormatType_24BGR = 0x32344247,                        // '24BG'
    kCVPixelFormatType_OneComponent8 = 0x4C303038,                // 'L008': grey
};

// The code hosts write as 'ARGB'; the system's constant for 32-bit ARGB is the number 32.
constexpr OSType kPixelFormatARGBText = 0x41524742; // 'ARGB'

// How one frame of a format sits in memory: up to three planes, one after the other.
struct PixelFormatLayout {
    int planeCount = 0;
    size_t bytesPerRow[3] = {0, 0, 0};
    size_t planeHeight[3] = {0, 0, 0};
    size_t planeWidth[3] = {0, 0, 0}; // in samples of that plane
    size_t planeOffset[3] = {0, 0, 0};
    size_t totalSize = 0;
};

struct PixelFormatInfo {
    OSType pixelFormat;  // Core Video code
    uint32_t v4l2Format; // V4L2_PIX_FMT_* value, 0 when V4L2 has none
    int ffmpegFormat;    // AVPixelFormat value
    const char* name;
};

// The entry for a Core Video code ('ARGB' text is taken as 32-bit ARGB); null when unknown.
const PixelFormatInfo* FindPixelFormat(OSType pixelFormat);
// The entry for a V4L2 pixel format; null when unknown.
const PixelFormatInfo* FindPixelFormatByV4L2(uint32_t v4l2Format);
// The Core Video code a host's request stands for ('ARGB' text becomes 32).
OSType CanonicalPixelFormat(OSType pixelFormat);

// Lays out a width x height frame with rows aligned to `alignment` bytes (a power of two);
// false for an unknown format or an empty or absurd size (over 16384 on a side).
bool GetPixelFormatLayout(OSType pixelFormat, size_t width, size_t height, size_t alignment,
                          PixelFormatLayout& layout);
