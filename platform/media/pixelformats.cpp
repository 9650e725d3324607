#include "platform/pixelformats.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace {

constexpr uint32_t V4L2FourCC(char a, char b, char c, char d) {
    return static_cast<uint32_t>(static_cast<unsigned char>(a)) |
           static_cast<uint32_t>(static_cast<unsigned char>(b)) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(c)) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(d)) << 24;
}

constexpr uint8_t kLibyuvAll = kLibyuvReads | kLibyuvWrites | kLibyuvScales;
constexpr uint8_t kLibyuvConverts = kLibyuvReads | kLibyuvWrites;

// libyuv has no scaler for packed 4:2:2, 16- or 24-bit pixels, nor any routine for big-endian
// RGB 5-6-5 or 4:4:4 Y'CbCr; grey ('L008') is full-range luma, which libyuv neither reads nor
// writes as such.
const PixelFormatInfo kFormats[] = {
    {kCVPixelFormatType_422YpCbCr8, V4L2FourCC('U', 'Y', 'V', 'Y'), AV_PIX_FMT_UYVY422, "2vuy",
     true, false, kLibyuvConverts},
    {kCVPixelFormatType_422YpCbCr8_yuvs, V4L2FourCC('Y', 'U', 'Y', 'V'), AV_PIX_FMT_YUYV422, "yuvs",
     true, false, kLibyuvConverts},
    // V4L2's ABGR32 is stored B, G, R, A; its ARGB32 is stored A, R, G, B; RGBA32 R, G, B, A.
    {kCVPixelFormatType_32BGRA, V4L2FourCC('A', 'R', '2', '4'), AV_PIX_FMT_BGRA, "BGRA", false,
     false, kLibyuvAll},
    {kCVPixelFormatType_32ARGB, V4L2FourCC('B', 'A', '2', '4'), AV_PIX_FMT_ARGB, "ARGB", false,
     false, kLibyuvAll},
    {kCVPixelFormatType_32RGBA, V4L2FourCC('A', 'B', '2', '4'), AV_PIX_FMT_RGBA, "RGBA", false,
     false, kLibyuvAll},
    // V4L2's BGRA32 is stored A, B, G, R.
    {kCVPixelFormatType_32ABGR, V4L2FourCC('R', 'A', '2', '4'), AV_PIX_FMT_ABGR, "ABGR", false,
     false, kLibyuvAll},
    {kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, V4L2FourCC('N', 'V', '1', '2'),
     AV_PIX_FMT_NV12, "420v", true, false, kLibyuvAll},
    // V4L2 gives the range separately, so NV12 maps to '420v' above.
    {kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, 0, AV_PIX_FMT_NV12, "420f", true, true,
     kLibyuvAll},
    {kCVPixelFormatType_420YpCbCr8Planar, V4L2FourCC('Y', 'U', '1', '2'), AV_PIX_FMT_YUV420P,
     "y420", true, false, kLibyuvAll},
    // The libswscale of FFmpeg 5.1 neither reads nor writes NV16: it works in UYVY instead.
    {kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange, V4L2FourCC('N', 'V', '1', '6'),
     AV_PIX_FMT_NV16, "422v", true, false, kLibyuvAll, kCVPixelFormatType_422YpCbCr8},
    {kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange, V4L2FourCC('N', 'V', '2', '4'),
     AV_PIX_FMT_NV24, "444v", true, false, 0},
    {kCVPixelFormatType_24RGB, V4L2FourCC('R', 'G', 'B', '3'), AV_PIX_FMT_RGB24, "24RG", false,
     false, kLibyuvConverts},
    {kCVPixelFormatType_24BGR, V4L2FourCC('B', 'G', 'R', '3'), AV_PIX_FMT_BGR24, "24BG", false,
     false, kLibyuvConverts},
    // V4L2's RGB565 is a little-endian word, RGB565X a big-endian one.
    {kCVPixelFormatType_16LE565, V4L2FourCC('R', 'G', 'B', 'P'), AV_PIX_FMT_RGB565LE, "L565", false,
     false, kLibyuvConverts},
    {kCVPixelFormatType_16BE565, V4L2FourCC('R', 'G', 'B', 'R'), AV_PIX_FMT_RGB565BE, "B565", false,
     false, 0},
    {kCVPixelFormatType_OneComponent8, V4L2FourCC('G', 'R', 'E', 'Y'), AV_PIX_FMT_GRAY8, "L008",
     false, false, 0},
};

// V4L2 formats stored as a table entry's own: the padding byte of XBGR32 and the others sits
// where the alpha byte of the entry's format does, and the old RGB32 and BGR32 names stand for
// the same orders as XRGB32 and XBGR32.
struct V4L2Alias {
    uint32_t v4l2Format;
    OSType pixelFormat;
};
const V4L2Alias kV4L2Aliases[] = {
    {V4L2FourCC('X', 'R', '2', '4'), kCVPixelFormatType_32BGRA}, // XBGR32: B, G, R, X
    {V4L2FourCC('B', 'G', 'R', '4'), kCVPixelFormatType_32BGRA}, // BGR32: B, G, R, X
    {V4L2FourCC('B', 'X', '2', '4'), kCVPixelFormatType_32ARGB}, // XRGB32: X, R, G, B
    {V4L2FourCC('R', 'G', 'B', '4'), kCVPixelFormatType_32ARGB}, // RGB32: X, R, G, B
    {V4L2FourCC('X', 'B', '2', '4'), kCVPixelFormatType_32RGBA}, // RGBX32: R, G, B, X
    {V4L2FourCC('R', 'X', '2', '4'), kCVPixelFormatType_32ABGR}, // BGRX32: X, B, G, R
};

size_t Align(size_t value, size_t alignment) {
    return (value + alignment - 1) & ~(alignment - 1);
}

} // namespace

OSType CanonicalPixelFormat(OSType pixelFormat) {
    return pixelFormat == kPixelFormatARGBText ? kCVPixelFormatType_32ARGB : pixelFormat;
}

const PixelFormatInfo* FindPixelFormat(OSType pixelFormat) {
    pixelFormat = CanonicalPixelFormat(pixelFormat);
    for (const PixelFormatInfo& info : kFormats)
        if (info.pixelFormat == pixelFormat)
            return &info;
    return nullptr;
}

const PixelFormatInfo* FindPixelFormatByV4L2(uint32_t v4l2Format) {
    if (v4l2Format == 0)
        return nullptr;
    for (const PixelFormatInfo& info : kFormats)
        if (info.v4l2Format == v4l2Format)
            return &info;
    for (const V4L2Alias& alias : kV4L2Aliases)
        if (alias.v4l2Format == v4l2Format)
            return FindPixelFormat(alias.pixelFormat);
    return nullptr;
}

const PixelFormatInfo* FindPixelFormatByFFmpeg(int ffmpegFormat) {
    for (const PixelFormatInfo& info : kFormats)
        if (info.ffmpegFormat == ffmpegFormat)
            return &info;
    return nullptr;
}

YCbCrColour DefaultColour(OSType pixelFormat) {
    const PixelFormatInfo* info = FindPixelFormat(pixelFormat);
    YCbCrColour colour;
    colour.fullRange = info != nullptr && info->fullRange;
    return colour;
}

bool GetPixelFormatLayout(OSType pixelFormat, size_t width, size_t height, size_t alignment,
                          PixelFormatLayout& layout) {
    layout = PixelFormatLayout();
    if (width == 0 || height == 0 || width > 16384 || height > 16384 || alignment == 0 ||
        (alignment & (alignment - 1)) != 0)
        return false;
    const size_t chromaWidth = (width + 1) / 2, chromaHeight = (height + 1) / 2;
    switch (CanonicalPixelFormat(pixelFormat)) {
    case kCVPixelFormatType_422YpCbCr8:
    case kCVPixelFormatType_422YpCbCr8_yuvs:
        layout.planeCount = 1;
        layout.bytesPerRow[0] = Align(chromaWidth * 4, alignment);
        layout.planeWidth[0] = width;
        break;
    case kCVPixelFormatType_32BGRA:
    case kCVPixelFormatType_32ARGB:
    case kCVPixelFormatType_32RGBA:
    case kCVPixelFormatType_32ABGR:
        layout.planeCount = 1;
        layout.bytesPerRow[0] = Align(width * 4, alignment);
        layout.planeWidth[0] = width;
        break;
    case kCVPixelFormatType_24RGB:
    case kCVPixelFormatType_24BGR:
        layout.planeCount = 1;
        layout.bytesPerRow[0] = Align(width * 3, alignment);
        layout.planeWidth[0] = width;
        break;
    case kCVPixelFormatType_16LE565:
    case kCVPixelFormatType_16BE565:
        layout.planeCount = 1;
        layout.bytesPerRow[0] = Align(width * 2, alignment);
        layout.planeWidth[0] = width;
        break;
    case kCVPixelFormatType_OneComponent8:
        layout.planeCount = 1;
        layout.bytesPerRow[0] = Align(width, alignment);
        layout.planeWidth[0] = width;
        break;
    case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange:
    case kCVPixelFormatType_420YpCbCr8BiPlanarFullRange:
    case kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange: // chroma on every row
        layout.planeCount = 2;
        layout.bytesPerRow[0] = Align(width, alignment);
        layout.bytesPerRow[1] = Align(chromaWidth * 2, alignment);
        layout.planeWidth[0] = width;
        layout.planeWidth[1] = chromaWidth;
        layout.planeHeight[1] =
            pixelFormat == kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange ? height : chromaHeight;
        break;
    case kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange:
        layout.planeCount = 2;
        layout.bytesPerRow[0] = Align(width, alignment);
        layout.bytesPerRow[1] = Align(width * 2, alignment);
        layout.planeWidth[0] = layout.planeWidth[1] = width;
        layout.planeHeight[1] = height;
        break;
    case kCVPixelFormatType_420YpCbCr8Planar:
        layout.planeCount = 3;
        layout.bytesPerRow[0] = Align(width, alignment);
        layout.bytesPerRow[1] = layout.bytesPerRow[2] = Align(chromaWidth, alignment);
        layout.planeWidth[0] = width;
        layout.planeWidth[1] = layout.planeWidth[2] = chromaWidth;
        layout.planeHeight[1] = layout.planeHeight[2] = chromaHeight;
        break;
    default:
        return false;
    }
    layout.planeHeight[0] = height;
    size_t offset = 0;
    for (int plane = 0; plane < layout.planeCount; ++plane) {
        layout.planeOffset[plane] = offset;
        offset += layout.bytesPerRow[plane] * layout.planeHeight[plane];
    }
    layout.totalSize = offset;
    return true;
}
