// One table for the pixel formats: Core Video four-character codes, their V4L2 and FFmpeg
// equivalents, what libyuv can do with each (which decides the path of every conversion), and
// how a frame of each is laid out in memory. Every backend and the conversion code use it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/mactypes.h"

enum : OSType {
    kCVPixelFormatType_422YpCbCr8 = 0x32767579,                   // '2vuy': U Y V Y
    kCVPixelFormatType_422YpCbCr8_yuvs = 0x79757673,              // 'yuvs': Y U Y V
    kCVPixelFormatType_32BGRA = 0x42475241,                       // 'BGRA'
    kCVPixelFormatType_32ARGB = 0x00000020,                       // 32: A R G B
    kCVPixelFormatType_32RGBA = 0x52474241,                       // 'RGBA'
    kCVPixelFormatType_32ABGR = 0x41424752,                       // 'ABGR'
    kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange = 0x34323076, // '420v': Y plane, CbCr plane
    kCVPixelFormatType_420YpCbCr8BiPlanarFullRange = 0x34323066,  // '420f': as '420v', 0-255
    kCVPixelFormatType_420YpCbCr8Planar = 0x79343230,             // 'y420': Y, Cb, Cr planes
    kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange = 0x34323276, // '422v': Y plane, CbCr plane
    kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange = 0x34343476, // '444v': Y plane, CbCr plane
    kCVPixelFormatType_24RGB = 0x00000018,                        // 24: R G B
    kCVPixelFormatType_24BGR = 0x32344247,                        // '24BG'
    kCVPixelFormatType_16LE565 = 0x4C353635,                      // 'L565': RGB 5-6-5, LE word
    kCVPixelFormatType_16BE565 = 0x42353635,                      // 'B565': RGB 5-6-5, BE word
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

// How a picture's Y'CbCr codes stand for colours: the matrix and the range of the codes. RGB
// formats ignore it.
enum class YCbCrMatrix : uint8_t { BT601, BT709, BT2020 };
// How the two fields of a picture sit in time: a progressive picture has none; an interlaced
// one holds both fields woven line by line, captured one after the other.
enum class FieldOrder : uint8_t { Progressive, TopFirst, BottomFirst };

struct YCbCrColour {
    YCbCrMatrix matrix = YCbCrMatrix::BT601;
    bool fullRange = false; // codes 0-255 (JPEG) rather than 16-235 and 16-240 (video)
    bool operator==(const YCbCrColour& other) const {
        return matrix == other.matrix && fullRange == other.fullRange;
    }
    bool operator!=(const YCbCrColour& other) const { return !(*this == other); }
};

// What libyuv does with a format. A same-size conversion takes libyuv when the source reads
// and the target writes through it; scaling takes libyuv when, besides, the target scales.
// libswscale does the rest.
enum LibyuvAbility : uint8_t {
    kLibyuvReads = 1,  // to BGRA, honouring the matrix and range
    kLibyuvWrites = 2, // from BGRA
    kLibyuvScales = 4,
};

struct PixelFormatInfo {
    OSType pixelFormat;  // Core Video code
    uint32_t v4l2Format; // V4L2_PIX_FMT_* value, 0 when V4L2 has none
    int ffmpegFormat;    // AVPixelFormat value
    const char* name;
    bool isYCbCr;   // codes are Y'CbCr, so matrix and range apply
    bool fullRange; // a Y'CbCr format whose range is fixed at 0-255 ('420f')
    uint8_t libyuv; // LibyuvAbility bits
    // For a format libswscale may not read or write ('422v' before FFmpeg 7): a table format
    // of the same sampling that it does, which libyuv repacks into and out of code for code.
    OSType swscaleStandIn = 0;
};

// The entry for a Core Video code ('ARGB' text is taken as 32-bit ARGB); null when unknown.
const PixelFormatInfo* FindPixelFormat(OSType pixelFormat);
// The entry for a V4L2 pixel format; null when unknown. Besides each entry's own V4L2 format,
// the V4L2 formats that store the same bytes under another name (XBGR32 is ABGR32 whose alpha
// byte means nothing) find that entry.
const PixelFormatInfo* FindPixelFormatByV4L2(uint32_t v4l2Format);
// The entry for an FFmpeg pixel format (AVPixelFormat); null when unknown.
const PixelFormatInfo* FindPixelFormatByFFmpeg(int ffmpegFormat);
// The Core Video code a host's request stands for ('ARGB' text becomes 32).
OSType CanonicalPixelFormat(OSType pixelFormat);
// The colour a fresh buffer of the format has: BT.601, in the format's range.
YCbCrColour DefaultColour(OSType pixelFormat);

// Lays out a width x height frame with rows aligned to `alignment` bytes (a power of two);
// false for an unknown format or an empty or absurd size (over 16384 on a side).
bool GetPixelFormatLayout(OSType pixelFormat, size_t width, size_t height, size_t alignment,
                          PixelFormatLayout& layout);
