#include "platform/videoconverter.h"

#include <emmintrin.h>
#include <libyuv.h>

#include <algorithm>
#include <cstring>
#include <vector>

extern "C" {
#include <libswscale/swscale.h>
}

// libyuv names 32-bit formats after the order of a little-endian word: its "ARGB" is stored
// B, G, R, A (our 'BGRA'), its "BGRA" A, R, G, B (our 'ARGB'), its "ABGR" R, G, B, A (our
// 'RGBA'), its "RGBA" A, B, G, R (our 'ABGR'); its "RAW" is R, G, B ('24RG'), its "RGB24"
// B, G, R ('24BG') and its "RGB565" a little-endian 5-6-5 word ('L565'). Conversions that
// change more than the packing go through 'BGRA' in strips of rows that stay in the cache.

namespace {

constexpr int kStripRows = 16; // even, so 4:2:0 chroma rows split with the luma rows

struct Planes {
    uint8_t* data[3] = {nullptr, nullptr, nullptr};
    int stride[3] = {0, 0, 0};
};

Planes PlanesOf(CVPixelBufferRef buffer) {
    Planes planes;
    for (int plane = 0; plane < buffer->layout.planeCount; ++plane) {
        planes.data[plane] = buffer->base + buffer->layout.planeOffset[plane];
        planes.stride[plane] = static_cast<int>(buffer->layout.bytesPerRow[plane]);
    }
    return planes;
}

bool Is420(OSType format) {
    return format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange ||
           format == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange ||
           format == kCVPixelFormatType_420YpCbCr8Planar;
}

bool IsNV12(OSType format) {
    return format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange ||
           format == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
}

// '422v': a Y plane and an interleaved CbCr plane of full height.
bool IsNV16(OSType format) {
    return format == kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange;
}

bool Is32Bit(OSType format) {
    return format == kCVPixelFormatType_32BGRA || format == kCVPixelFormatType_32ARGB ||
           format == kCVPixelFormatType_32RGBA || format == kCVPixelFormatType_32ABGR;
}

// The planes from row `row` on (an even row for 4:2:0 formats).
Planes FromRow(const Planes& planes, OSType format, int row) {
    Planes moved = planes;
    for (int plane = 0; plane < 3; ++plane) {
        if (moved.data[plane] == nullptr)
            continue;
        const int planeRow = plane > 0 && Is420(format) ? row / 2 : row;
        moved.data[plane] += static_cast<ptrdiff_t>(planeRow) * moved.stride[plane];
    }
    return moved;
}

const libyuv::YuvConstants* ConstantsFor(YCbCrColour colour) {
    switch (colour.matrix) {
    case YCbCrMatrix::BT709:
        return colour.fullRange ? &libyuv::kYuvF709Constants : &libyuv::kYuvH709Constants;
    case YCbCrMatrix::BT2020:
        return colour.fullRange ? &libyuv::kYuvV2020Constants : &libyuv::kYuv2020Constants;
    case YCbCrMatrix::BT601:
        break;
    }
    return colour.fullRange ? &libyuv::kYuvJPEGConstants : &libyuv::kYuvI601Constants;
}

bool IsVideoBT601(YCbCrColour colour) {
    return colour == YCbCrColour();
}

// Reusable memory for intermediate rows.
class Scratch {
public:
    // With room after the bytes asked for, as the pixel buffers have: libyuv's vector row
    // functions may store a little past the end of what they write.
    uint8_t* Get(size_t bytes) {
        if (memory.size() < bytes + kSlack)
            memory.resize(bytes + kSlack);
        return memory.data();
    }

private:
    static constexpr size_t kSlack = 64;
    std::vector<uint8_t> memory;
};

// libyuv's video-range BT.709 and BT.2020 readers are off by up to eleven levels of blue (the
// blue coefficient does not fit their 8-bit multiplier); its full-range ones are exact. Such
// pictures are widened to full range a strip at a time and read as full range.
bool NeedsWidening(YCbCrColour colour) {
    return !colour.fullRange && colour.matrix != YCbCrMatrix::BT601;
}

// Video-range codes to full range: luma (Y - 16) * 255 / 219, chroma (C - 128) * 255 / 224 +
// 128, rounded, saturated. Sixteen at a time in 16-bit lanes; `chroma` picks the formula.
void Widen(const uint8_t* in, uint8_t* out, int count, bool chroma) {
    const __m128i zero = _mm_setzero_si128();
    int i = 0;
    for (; i + 16 <= count; i += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        __m128i halves[2];
        for (int h = 0; h < 2; ++h) {
            __m128i v = h == 0 ? _mm_unpacklo_epi8(bytes, zero) : _mm_unpackhi_epi8(bytes, zero);
            if (chroma) {
                // (c << 7 | 64) * 583 >> 16 is c * 1.1384 rounded, for c in -128..127.
                v = _mm_or_si128(_mm_slli_epi16(_mm_sub_epi16(v, _mm_set1_epi16(128)), 7),
                                 _mm_set1_epi16(64));
                v = _mm_add_epi16(_mm_mulhi_epi16(v, _mm_set1_epi16(583)), _mm_set1_epi16(128));
            } else {
                // (y << 8 | 128) * 298 >> 16 is y * 1.1641 rounded, y = Y - 16 clamped at 0.
                v = _mm_subs_epu16(v, _mm_set1_epi16(16));
                v = _mm_or_si128(_mm_slli_epi16(v, 8), _mm_set1_epi16(128));
                v = _mm_mulhi_epu16(v, _mm_set1_epi16(298));
            }
            halves[h] = v;
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i),
                         _mm_packus_epi16(halves[0], halves[1]));
    }
    for (; i < count; ++i) {
        const int value = chroma ? ((in[i] - 128) * 255 * 2 + 224) / 448 + 128
                                 : ((std::max(in[i] - 16, 0)) * 255 * 2 + 219) / 438;
        out[i] = static_cast<uint8_t>(std::clamp(value, 0, 255));
    }
}

void WidenPlane(const uint8_t* in, int inStride, uint8_t* out, int outStride, int bytes, int rows,
                bool chroma) {
    for (int row = 0; row < rows; ++row)
        Widen(in + static_cast<ptrdiff_t>(row) * inStride,
              out + static_cast<ptrdiff_t>(row) * outStride, bytes, chroma);
}

// A video-range BT.709 or BT.2020 picture to 'BGRA', through full-range planes a strip at a
// time.
bool ReadWidened(OSType format, const Planes& s, YCbCrColour colour, uint8_t* target,
                 int targetStride, int width, int height, Scratch& scratch) {
    colour.fullRange = true;
    const libyuv::YuvConstants* constants = ConstantsFor(colour);
    const int chromaWidth = (width + 1) / 2;
    const bool is422 = !Is420(format);
    const bool nv12 = IsNV12(format);
    // Luma, then Cb and Cr (or CbCr) of one strip.
    const int chromaRows = is422 ? kStripRows : kStripRows / 2;
    uint8_t* y = scratch.Get(static_cast<size_t>(width + 2 * chromaWidth) * kStripRows);
    uint8_t* u = y + static_cast<size_t>(width) * kStripRows;
    uint8_t* v = u + static_cast<size_t>(chromaWidth) * chromaRows;
    for (int row = 0; row < height; row += kStripRows) {
        const int rows = std::min(kStripRows, height - row);
        const int stripChromaRows = is422 ? rows : (rows + 1) / 2;
        const Planes in = FromRow(s, format, row);
        if (is422) {
            if (IsNV16(format)) {
                libyuv::SplitUVPlane(in.data[1], in.stride[1], u, chromaWidth, v, chromaWidth,
                                     chromaWidth, rows);
                WidenPlane(in.data[0], in.stride[0], y, width, width, rows, false);
            } else {
                const int result =
                    format == kCVPixelFormatType_422YpCbCr8
                        ? libyuv::UYVYToI422(in.data[0], in.stride[0], y, width, u, chromaWidth, v,
                                             chromaWidth, width, rows)
                        : libyuv::YUY2ToI422(in.data[0], in.stride[0], y, width, u, chromaWidth, v,
                                             chromaWidth, width, rows);
                if (result != 0)
                    return false;
                WidenPlane(y, width, y, width, width, rows, false);
            }
            WidenPlane(u, chromaWidth, u, chromaWidth, chromaWidth, rows, true);
            WidenPlane(v, chromaWidth, v, chromaWidth, chromaWidth, rows, true);
        } else {
            WidenPlane(in.data[0], in.stride[0], y, width, width, rows, false);
            if (nv12) {
                WidenPlane(in.data[1], in.stride[1], u, 2 * chromaWidth, 2 * chromaWidth,
                           stripChromaRows, true);
            } else {
                WidenPlane(in.data[1], in.stride[1], u, chromaWidth, chromaWidth, stripChromaRows,
                           true);
                WidenPlane(in.data[2], in.stride[2], v, chromaWidth, chromaWidth, stripChromaRows,
                           true);
            }
        }
        uint8_t* out = target + static_cast<ptrdiff_t>(row) * targetStride;
        int result;
        if (is422)
            result = libyuv::I422ToARGBMatrix(y, width, u, chromaWidth, v, chromaWidth, out,
                                              targetStride, constants, width, rows);
        else if (nv12)
            result = libyuv::NV12ToARGBMatrix(y, width, u, 2 * chromaWidth, out, targetStride,
                                              constants, width, rows);
        else
            result = libyuv::I420ToARGBMatrix(y, width, u, chromaWidth, v, chromaWidth, out,
                                              targetStride, constants, width, rows);
        if (result != 0)
            return false;
    }
    return true;
}

// 4:2:2 that libyuv reads with a matrix only as three planes (packed 4:2:2 in another matrix or
// range than libyuv's packed readers know, and '422v' always): split into planes a strip at a
// time, then read with the matrix. '422v' keeps its own luma plane.
void Read422(OSType format, const Planes& source, const libyuv::YuvConstants* constants,
             uint8_t* target, int targetStride, int width, int height, Scratch& scratch) {
    const int chromaWidth = (width + 1) / 2;
    uint8_t* y = scratch.Get(static_cast<size_t>(width + 2 * chromaWidth) * kStripRows);
    uint8_t* u = y + static_cast<size_t>(width) * kStripRows;
    uint8_t* v = u + static_cast<size_t>(chromaWidth) * kStripRows;
    for (int row = 0; row < height; row += kStripRows) {
        const int rows = std::min(kStripRows, height - row);
        const Planes in = FromRow(source, format, row);
        const uint8_t* luma = y;
        int lumaStride = width;
        if (IsNV16(format)) {
            libyuv::SplitUVPlane(in.data[1], in.stride[1], u, chromaWidth, v, chromaWidth,
                                 chromaWidth, rows);
            luma = in.data[0];
            lumaStride = in.stride[0];
        } else if (format == kCVPixelFormatType_422YpCbCr8) {
            libyuv::UYVYToI422(in.data[0], in.stride[0], y, width, u, chromaWidth, v, chromaWidth,
                               width, rows);
        } else {
            libyuv::YUY2ToI422(in.data[0], in.stride[0], y, width, u, chromaWidth, v, chromaWidth,
                               width, rows);
        }
        libyuv::I422ToARGBMatrix(luma, lumaStride, u, chromaWidth, v, chromaWidth,
                                 target + static_cast<ptrdiff_t>(row) * targetStride, targetStride,
                                 constants, width, rows);
    }
}

// Any format libyuv reads, to 'BGRA' (libyuv's ARGB).
bool ReadToBGRA(OSType format, const Planes& source, YCbCrColour colour, uint8_t* target,
                int targetStride, int width, int height, Scratch& scratch) {
    const libyuv::YuvConstants* constants = ConstantsFor(colour);
    const Planes& s = source;
    const PixelFormatInfo* info = FindPixelFormat(format);
    if (info != nullptr && info->isYCbCr && NeedsWidening(colour))
        return ReadWidened(format, s, colour, target, targetStride, width, height, scratch);
    switch (format) {
    case kCVPixelFormatType_422YpCbCr8:
        if (!IsVideoBT601(colour)) {
            Read422(format, s, constants, target, targetStride, width, height, scratch);
            return true;
        }
        return libyuv::UYVYToARGB(s.data[0], s.stride[0], target, targetStride, width, height) == 0;
    case kCVPixelFormatType_422YpCbCr8_yuvs:
        if (!IsVideoBT601(colour)) {
            Read422(format, s, constants, target, targetStride, width, height, scratch);
            return true;
        }
        return libyuv::YUY2ToARGB(s.data[0], s.stride[0], target, targetStride, width, height) == 0;
    case kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange:
        Read422(format, s, constants, target, targetStride, width, height, scratch);
        return true;
    case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange:
    case kCVPixelFormatType_420YpCbCr8BiPlanarFullRange:
        return libyuv::NV12ToARGBMatrix(s.data[0], s.stride[0], s.data[1], s.stride[1], target,
                                        targetStride, constants, width, height) == 0;
    case kCVPixelFormatType_420YpCbCr8Planar:
        return libyuv::I420ToARGBMatrix(s.data[0], s.stride[0], s.data[1], s.stride[1], s.data[2],
                                        s.stride[2], target, targetStride, constants, width,
                                        height) == 0;
    case kCVPixelFormatType_32BGRA:
        return libyuv::ARGBCopy(s.data[0], s.stride[0], target, targetStride, width, height) == 0;
    case kCVPixelFormatType_32ARGB:
        return libyuv::BGRAToARGB(s.data[0], s.stride[0], target, targetStride, width, height) == 0;
    case kCVPixelFormatType_32RGBA:
        return libyuv::ABGRToARGB(s.data[0], s.stride[0], target, targetStride, width, height) == 0;
    case kCVPixelFormatType_32ABGR:
        return libyuv::RGBAToARGB(s.data[0], s.stride[0], target, targetStride, width, height) == 0;
    case kCVPixelFormatType_16LE565:
        return libyuv::RGB565ToARGB(s.data[0], s.stride[0], target, targetStride, width, height) ==
               0;
    case kCVPixelFormatType_24RGB:
        return libyuv::RAWToARGB(s.data[0], s.stride[0], target, targetStride, width, height) == 0;
    case kCVPixelFormatType_24BGR:
        return libyuv::RGB24ToARGB(s.data[0], s.stride[0], target, targetStride, width, height) ==
               0;
    default:
        return false;
    }
}

// Fills the interleaved CbCr plane of a semi-planar target from Cb and Cr planes that `write`
// produces in scratch: libyuv writes some chroma (full-range 4:2:0, all 4:2:2) only as planes.
template <typename WritePlanes>
bool ThroughChromaPlanes(const Planes& t, int chromaWidth, int chromaHeight, Scratch& scratch,
                         WritePlanes write) {
    const size_t chromaSize = static_cast<size_t>(chromaWidth) * chromaHeight;
    uint8_t* u = scratch.Get(2 * chromaSize);
    uint8_t* v = u + chromaSize;
    if (!write(u, v))
        return false;
    libyuv::MergeUVPlane(u, chromaWidth, v, chromaWidth, t.data[1], t.stride[1], chromaWidth,
                         chromaHeight);
    return true;
}

// 'BGRA' to any format libyuv writes; Y'CbCr comes out BT.601 in the format's range.
bool WriteFromBGRA(OSType format, const uint8_t* source, int sourceStride, const Planes& target,
                   int width, int height, Scratch& scratch) {
    const Planes& t = target;
    const int chromaWidth = (width + 1) / 2;
    switch (format) {
    case kCVPixelFormatType_422YpCbCr8:
        return libyuv::ARGBToUYVY(source, sourceStride, t.data[0], t.stride[0], width, height) == 0;
    case kCVPixelFormatType_422YpCbCr8_yuvs:
        return libyuv::ARGBToYUY2(source, sourceStride, t.data[0], t.stride[0], width, height) == 0;
    case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange:
        return libyuv::ARGBToNV12(source, sourceStride, t.data[0], t.stride[0], t.data[1],
                                  t.stride[1], width, height) == 0;
    case kCVPixelFormatType_420YpCbCr8BiPlanarFullRange:
        return ThroughChromaPlanes(
            t, chromaWidth, (height + 1) / 2, scratch, [&](uint8_t* u, uint8_t* v) {
                return libyuv::ARGBToJ420(source, sourceStride, t.data[0], t.stride[0], u,
                                          chromaWidth, v, chromaWidth, width, height) == 0;
            });
    case kCVPixelFormatType_420YpCbCr8Planar:
        return libyuv::ARGBToI420(source, sourceStride, t.data[0], t.stride[0], t.data[1],
                                  t.stride[1], t.data[2], t.stride[2], width, height) == 0;
    case kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange:
        return ThroughChromaPlanes(t, chromaWidth, height, scratch, [&](uint8_t* u, uint8_t* v) {
            return libyuv::ARGBToI422(source, sourceStride, t.data[0], t.stride[0], u, chromaWidth,
                                      v, chromaWidth, width, height) == 0;
        });
    case kCVPixelFormatType_32BGRA:
        return libyuv::ARGBCopy(source, sourceStride, t.data[0], t.stride[0], width, height) == 0;
    case kCVPixelFormatType_32ARGB:
        return libyuv::ARGBToBGRA(source, sourceStride, t.data[0], t.stride[0], width, height) == 0;
    case kCVPixelFormatType_32RGBA:
        return libyuv::ARGBToABGR(source, sourceStride, t.data[0], t.stride[0], width, height) == 0;
    case kCVPixelFormatType_32ABGR:
        return libyuv::ARGBToRGBA(source, sourceStride, t.data[0], t.stride[0], width, height) == 0;
    case kCVPixelFormatType_16LE565:
        return libyuv::ARGBToRGB565(source, sourceStride, t.data[0], t.stride[0], width, height) ==
               0;
    case kCVPixelFormatType_24RGB:
        return libyuv::ARGBToRAW(source, sourceStride, t.data[0], t.stride[0], width, height) == 0;
    case kCVPixelFormatType_24BGR:
        return libyuv::ARGBToRGB24(source, sourceStride, t.data[0], t.stride[0], width, height) ==
               0;
    default:
        return false;
    }
}

// Averages each pair of rows into one, as libyuv's 4:2:2 to 4:2:0 conversions do; an odd last
// row is copied.
void HalveRows(const uint8_t* in, int inStride, uint8_t* out, int outStride, int bytes, int rows) {
    if (rows >= 2)
        libyuv::InterpolatePlane(in, 2 * inStride, in + inStride, 2 * inStride, out, outStride,
                                 bytes, rows / 2, 128);
    if (rows % 2 != 0)
        memcpy(out + static_cast<ptrdiff_t>(rows / 2) * outStride,
               in + static_cast<ptrdiff_t>(rows - 1) * inStride, bytes);
}

// Writes each chroma row of a 4:2:0 picture twice, as libyuv's 4:2:0 to 4:2:2 conversions do:
// `copy` writes chroma rows from `in` to `rows` rows of `out` spaced by `outStride`.
template <typename CopyRows>
void DoubleRows(uint8_t* out, int outStride, int height, CopyRows copy) {
    copy(out, 2 * outStride, (height + 1) / 2);
    if (height >= 2)
        copy(out + outStride, 2 * outStride, height / 2);
}

// '422v' to or from the other Y'CbCr formats libyuv handles, codes unchanged but for the
// chroma rows that 4:2:0 halves or doubles. False for other pairs.
bool RepackNV16(OSType from, const Planes& s, OSType to, const Planes& t, int width, int height,
                Scratch& scratch) {
    const int chromaWidth = (width + 1) / 2;
    const bool uyvy = from == kCVPixelFormatType_422YpCbCr8 || to == kCVPixelFormatType_422YpCbCr8;
    const bool yuy2 =
        from == kCVPixelFormatType_422YpCbCr8_yuvs || to == kCVPixelFormatType_422YpCbCr8_yuvs;
    const bool i420 =
        from == kCVPixelFormatType_420YpCbCr8Planar || to == kCVPixelFormatType_420YpCbCr8Planar;
    if (IsNV16(to)) {
        if (IsNV12(from)) {
            libyuv::CopyPlane(s.data[0], s.stride[0], t.data[0], t.stride[0], width, height);
            DoubleRows(t.data[1], t.stride[1], height, [&](uint8_t* out, int stride, int rows) {
                libyuv::CopyPlane(s.data[1], s.stride[1], out, stride, 2 * chromaWidth, rows);
            });
            return true;
        }
        if (i420) {
            libyuv::CopyPlane(s.data[0], s.stride[0], t.data[0], t.stride[0], width, height);
            DoubleRows(t.data[1], t.stride[1], height, [&](uint8_t* out, int stride, int rows) {
                libyuv::MergeUVPlane(s.data[1], s.stride[1], s.data[2], s.stride[2], out, stride,
                                     chromaWidth, rows);
            });
            return true;
        }
        if (!uyvy && !yuy2)
            return false;
        return ThroughChromaPlanes(t, chromaWidth, height, scratch, [&](uint8_t* u, uint8_t* v) {
            const auto toI422 = uyvy ? libyuv::UYVYToI422 : libyuv::YUY2ToI422;
            return toI422(s.data[0], s.stride[0], t.data[0], t.stride[0], u, chromaWidth, v,
                          chromaWidth, width, height) == 0;
        });
    }
    if (IsNV12(to)) {
        libyuv::CopyPlane(s.data[0], s.stride[0], t.data[0], t.stride[0], width, height);
        HalveRows(s.data[1], s.stride[1], t.data[1], t.stride[1], 2 * chromaWidth, height);
        return true;
    }
    if (!uyvy && !yuy2 && !i420)
        return false;
    // Through Cb and Cr planes a strip at a time.
    uint8_t* u = scratch.Get(static_cast<size_t>(2 * chromaWidth) * kStripRows);
    uint8_t* v = u + static_cast<size_t>(chromaWidth) * kStripRows;
    for (int row = 0; row < height; row += kStripRows) {
        const int rows = std::min(kStripRows, height - row);
        const Planes in = FromRow(s, from, row), out = FromRow(t, to, row);
        libyuv::SplitUVPlane(in.data[1], in.stride[1], u, chromaWidth, v, chromaWidth, chromaWidth,
                             rows);
        if (i420) {
            libyuv::CopyPlane(in.data[0], in.stride[0], out.data[0], out.stride[0], width, rows);
            HalveRows(u, chromaWidth, out.data[1], out.stride[1], chromaWidth, rows);
            HalveRows(v, chromaWidth, out.data[2], out.stride[2], chromaWidth, rows);
        } else if ((uyvy ? libyuv::I422ToUYVY(in.data[0], in.stride[0], u, chromaWidth, v,
                                              chromaWidth, out.data[0], out.stride[0], width, rows)
                         : libyuv::I422ToYUY2(in.data[0], in.stride[0], u, chromaWidth, v,
                                              chromaWidth, out.data[0], out.stride[0], width,
                                              rows)) != 0) {
            return false;
        }
    }
    return true;
}

// Y'CbCr to Y'CbCr of the same range: only the packing changes, directly or through three
// 4:2:0 planes. False for pairs that need more.
bool Repack(OSType from, const Planes& s, OSType to, const Planes& t, int width, int height,
            Scratch& scratch) {
    if (IsNV16(from) || IsNV16(to))
        return RepackNV16(from, s, to, t, width, height, scratch);
    static const uint8_t kSwapPairs[16] = {1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14};
    const bool fromUYVY = from == kCVPixelFormatType_422YpCbCr8;
    const bool fromYUY2 = from == kCVPixelFormatType_422YpCbCr8_yuvs;
    const bool toUYVY = to == kCVPixelFormatType_422YpCbCr8;
    const bool toYUY2 = to == kCVPixelFormatType_422YpCbCr8_yuvs;
    if ((fromUYVY && toYUY2) || (fromYUY2 && toUYVY))
        return libyuv::ARGBShuffle(s.data[0], s.stride[0], t.data[0], t.stride[0], kSwapPairs,
                                   (width + 1) / 2, height) == 0;
    if (IsNV12(from) && IsNV12(to))
        return libyuv::NV12Copy(s.data[0], s.stride[0], s.data[1], s.stride[1], t.data[0],
                                t.stride[0], t.data[1], t.stride[1], width, height) == 0;
    if (fromUYVY && IsNV12(to))
        return libyuv::UYVYToNV12(s.data[0], s.stride[0], t.data[0], t.stride[0], t.data[1],
                                  t.stride[1], width, height) == 0;
    if (fromYUY2 && IsNV12(to))
        return libyuv::YUY2ToNV12(s.data[0], s.stride[0], t.data[0], t.stride[0], t.data[1],
                                  t.stride[1], width, height) == 0;
    // Through three 4:2:0 planes: the target's own when it is 'y420', a strip's otherwise.
    const bool toI420 = to == kCVPixelFormatType_420YpCbCr8Planar;
    if (!toUYVY && !toYUY2 && !IsNV12(to) && !toI420)
        return false;
    auto toPlanar = [&](const Planes& source, const Planes& planar, int rows) {
        const Planes& p = planar;
        if (fromUYVY)
            return libyuv::UYVYToI420(source.data[0], source.stride[0], p.data[0], p.stride[0],
                                      p.data[1], p.stride[1], p.data[2], p.stride[2], width,
                                      rows) == 0;
        if (fromYUY2)
            return libyuv::YUY2ToI420(source.data[0], source.stride[0], p.data[0], p.stride[0],
                                      p.data[1], p.stride[1], p.data[2], p.stride[2], width,
                                      rows) == 0;
        if (IsNV12(from))
            return libyuv::NV12ToI420(source.data[0], source.stride[0], source.data[1],
                                      source.stride[1], p.data[0], p.stride[0], p.data[1],
                                      p.stride[1], p.data[2], p.stride[2], width, rows) == 0;
        return libyuv::I420Copy(source.data[0], source.stride[0], source.data[1], source.stride[1],
                                source.data[2], source.stride[2], p.data[0], p.stride[0], p.data[1],
                                p.stride[1], p.data[2], p.stride[2], width, rows) == 0;
    };
    if (toI420)
        return toPlanar(s, t, height);
    const int chromaWidth = (width + 1) / 2;
    Planes strip;
    strip.data[0] = scratch.Get(static_cast<size_t>(width + chromaWidth) * kStripRows);
    strip.data[1] = strip.data[0] + static_cast<size_t>(width) * kStripRows;
    strip.data[2] = strip.data[1] + static_cast<size_t>(chromaWidth) * kStripRows / 2;
    strip.stride[0] = width;
    strip.stride[1] = strip.stride[2] = chromaWidth;
    const bool planarSource = from == kCVPixelFormatType_420YpCbCr8Planar;
    for (int row = 0; row < height; row += kStripRows) {
        const int rows = std::min(kStripRows, height - row);
        const Planes source = FromRow(s, from, row);
        const Planes planar = planarSource ? source : strip;
        if (!planarSource && !toPlanar(source, strip, rows))
            return false;
        const Planes out = FromRow(t, to, row);
        const Planes& p = planar;
        int result = -1;
        if (toUYVY)
            result = libyuv::I420ToUYVY(p.data[0], p.stride[0], p.data[1], p.stride[1], p.data[2],
                                        p.stride[2], out.data[0], out.stride[0], width, rows);
        else if (toYUY2)
            result = libyuv::I420ToYUY2(p.data[0], p.stride[0], p.data[1], p.stride[1], p.data[2],
                                        p.stride[2], out.data[0], out.stride[0], width, rows);
        else
            result = libyuv::I420ToNV12(p.data[0], p.stride[0], p.data[1], p.stride[1], p.data[2],
                                        p.stride[2], out.data[0], out.stride[0], out.data[1],
                                        out.stride[1], width, rows);
        if (result != 0)
            return false;
    }
    return true;
}

// Anything libyuv reads to anything it writes, at one size. Returns the target's colour
// through `colour`.
bool LibyuvConvert(OSType from, const Planes& source, YCbCrColour sourceColour, OSType to,
                   const Planes& target, int width, int height, YCbCrColour& colour,
                   Scratch& scratch, Scratch& rows) {
    const PixelFormatInfo* fromInfo = FindPixelFormat(from);
    const PixelFormatInfo* toInfo = FindPixelFormat(to);
    colour = DefaultColour(to);
    if (fromInfo->isYCbCr && toInfo->isYCbCr && sourceColour.fullRange == toInfo->fullRange) {
        colour = sourceColour;
        if (Repack(from, source, to, target, width, height, scratch))
            return true;
        colour = DefaultColour(to);
    }
    if (to == kCVPixelFormatType_32BGRA)
        return ReadToBGRA(from, source, sourceColour, target.data[0], target.stride[0], width,
                          height, scratch);
    if (from == kCVPixelFormatType_32BGRA)
        return WriteFromBGRA(to, source.data[0], source.stride[0], target, width, height, scratch);
    const int stride = width * 4;
    uint8_t* strip = rows.Get(static_cast<size_t>(stride) * kStripRows);
    for (int row = 0; row < height; row += kStripRows) {
        const int count = std::min(kStripRows, height - row);
        if (!ReadToBGRA(from, FromRow(source, from, row), sourceColour, strip, stride, width, count,
                        scratch) ||
            !WriteFromBGRA(to, strip, stride, FromRow(target, to, row), width, count, scratch))
            return false;
    }
    return true;
}

bool LibyuvScale(OSType format, const Planes& s, size_t sourceWidth, size_t sourceHeight,
                 const Planes& t, size_t width, size_t height) {
    const int sw = static_cast<int>(sourceWidth), sh = static_cast<int>(sourceHeight);
    const int w = static_cast<int>(width), h = static_cast<int>(height);
    if (Is32Bit(format))
        return libyuv::ARGBScale(s.data[0], s.stride[0], sw, sh, t.data[0], t.stride[0], w, h,
                                 libyuv::kFilterBilinear) == 0;
    if (IsNV12(format))
        return libyuv::NV12Scale(s.data[0], s.stride[0], s.data[1], s.stride[1], sw, sh, t.data[0],
                                 t.stride[0], t.data[1], t.stride[1], w, h,
                                 libyuv::kFilterBilinear) == 0;
    if (IsNV16(format)) {
        libyuv::ScalePlane(s.data[0], s.stride[0], sw, sh, t.data[0], t.stride[0], w, h,
                           libyuv::kFilterBilinear);
        return libyuv::UVScale(s.data[1], s.stride[1], (sw + 1) / 2, sh, t.data[1], t.stride[1],
                               (w + 1) / 2, h, libyuv::kFilterBilinear) == 0;
    }
    if (format == kCVPixelFormatType_420YpCbCr8Planar)
        return libyuv::I420Scale(s.data[0], s.stride[0], s.data[1], s.stride[1], s.data[2],
                                 s.stride[2], sw, sh, t.data[0], t.stride[0], t.data[1],
                                 t.stride[1], t.data[2], t.stride[2], w, h,
                                 libyuv::kFilterBilinear) == 0;
    return false;
}

int SwsColourspace(YCbCrMatrix matrix) {
    switch (matrix) {
    case YCbCrMatrix::BT709:
        return SWS_CS_ITU709;
    case YCbCrMatrix::BT2020:
        return SWS_CS_BT2020;
    case YCbCrMatrix::BT601:
        break;
    }
    return SWS_CS_ITU601;
}

void ReleasePool(CVPixelBufferPool*& pool) {
    if (pool != nullptr) {
        pool->Invalidate();
        pool->release();
        pool = nullptr;
    }
}

} // namespace

const PixelFormatInfo* SwscaleFormat(OSType format) {
    const PixelFormatInfo* info = FindPixelFormat(format);
    if (info == nullptr || info->swscaleStandIn == 0)
        return info;
    const auto own = static_cast<AVPixelFormat>(info->ffmpegFormat);
    if (sws_isSupportedInput(own) > 0 && sws_isSupportedOutput(own) > 0)
        return info;
    return FindPixelFormat(info->swscaleStandIn);
}

bool VideoConversionIsIdentity(OSType sourceFormat, size_t sourceWidth, size_t sourceHeight,
                               OSType pixelFormat, size_t width, size_t height) {
    return (pixelFormat == 0 ||
            CanonicalPixelFormat(pixelFormat) == CanonicalPixelFormat(sourceFormat)) &&
           (width == 0 || width == sourceWidth) && (height == 0 || height == sourceHeight);
}

ConversionPath ChooseConversionPath(OSType from, size_t fromWidth, size_t fromHeight, OSType to,
                                    size_t toWidth, size_t toHeight) {
    const PixelFormatInfo* fromInfo = FindPixelFormat(from);
    const PixelFormatInfo* toInfo = FindPixelFormat(to);
    PixelFormatLayout check;
    if (fromInfo == nullptr || toInfo == nullptr ||
        !GetPixelFormatLayout(to, toWidth, toHeight, 1, check))
        return ConversionPath::Impossible;
    if (VideoConversionIsIdentity(from, fromWidth, fromHeight, to, toWidth, toHeight))
        return ConversionPath::Identity;
    const bool scales = fromWidth != toWidth || fromHeight != toHeight;
    const bool converts = fromInfo->pixelFormat != toInfo->pixelFormat;
    if (converts &&
        !((fromInfo->libyuv & kLibyuvReads) != 0 && (toInfo->libyuv & kLibyuvWrites) != 0))
        return ConversionPath::Swscale;
    if (scales && (toInfo->libyuv & kLibyuvScales) == 0)
        return ConversionPath::Swscale;
    return ConversionPath::Libyuv;
}

struct VideoConverter::Implementation {
    Engine engine;
    ConversionPath lastPath = ConversionPath::Impossible;
    CVPixelBufferPool* pool = nullptr; // of delivered buffers
    // libswscale, for the pairs libyuv does not handle, set up for one source and target.
    SwsContext* scaler = nullptr;
    OSType scalerFormat = 0, scalerTargetFormat = 0;
    size_t scalerWidth = 0, scalerHeight = 0, scalerTargetWidth = 0, scalerTargetHeight = 0;
    YCbCrColour scalerColour;
    // A frame in the target's format at the source's size, when libyuv converts then scales.
    CVPixelBufferPool* unscaledPool = nullptr;
    // Frames in the formats libswscale works in for a source or target it does not handle.
    CVPixelBufferPool* standInSourcePool = nullptr;
    CVPixelBufferPool* standInTargetPool = nullptr;
    Scratch scratch, rows;

    explicit Implementation(Engine engine) : engine(engine) {}

    ~Implementation() {
        sws_freeContext(scaler);
        ReleasePool(pool);
        ReleasePool(unscaledPool);
        ReleasePool(standInSourcePool);
        ReleasePool(standInTargetPool);
    }

    CVPixelBufferRef PooledBuffer(CVPixelBufferPool*& from, OSType format, size_t width,
                                  size_t height) {
        if (from == nullptr || from->pixelFormat() != format || from->width() != width ||
            from->height() != height) {
            ReleasePool(from);
            from = new CVPixelBufferPool(format, width, height);
        }
        return from->CreatePixelBuffer();
    }

    bool ConvertWithLibyuv(CVPixelBufferRef source, CVPixelBufferRef target) {
        const int width = static_cast<int>(source->width);
        const int height = static_cast<int>(source->height);
        if (source->width == target->width && source->height == target->height)
            return LibyuvConvert(source->pixelFormat, PlanesOf(source), source->colour,
                                 target->pixelFormat, PlanesOf(target), width, height,
                                 target->colour, scratch, rows);
        CVPixelBufferRef unscaled = source;
        if (source->pixelFormat != target->pixelFormat) {
            unscaled =
                PooledBuffer(unscaledPool, target->pixelFormat, source->width, source->height);
            if (unscaled == nullptr ||
                !LibyuvConvert(source->pixelFormat, PlanesOf(source), source->colour,
                               target->pixelFormat, PlanesOf(unscaled), width, height,
                               unscaled->colour, scratch, rows)) {
                CVPixelBufferRelease(unscaled);
                return false;
            }
        } else {
            CVPixelBufferRetain(unscaled);
        }
        const bool scaled =
            LibyuvScale(target->pixelFormat, PlanesOf(unscaled), unscaled->width, unscaled->height,
                        PlanesOf(target), target->width, target->height);
        target->colour = unscaled->colour;
        CVPixelBufferRelease(unscaled);
        return scaled;
    }

    bool PrepareScaler(CVPixelBufferRef source, CVPixelBufferRef target, YCbCrColour targetColour) {
        if (scaler != nullptr && scalerFormat == source->pixelFormat &&
            scalerWidth == source->width && scalerHeight == source->height &&
            scalerColour == source->colour && scalerTargetFormat == target->pixelFormat &&
            scalerTargetWidth == target->width && scalerTargetHeight == target->height)
            return true;
        sws_freeContext(scaler);
        scaler = nullptr;
        const PixelFormatInfo* from = FindPixelFormat(source->pixelFormat);
        const PixelFormatInfo* to = FindPixelFormat(target->pixelFormat);
        // A format change alone samples chroma by point, which keeps colours exact where
        // edges fall on chroma sites (bilinear chroma interpolation smears them, by up to a
        // third of the range for NV12); scaling filters bilinearly. Without accurate rounding
        // and full chroma interpolation the RGB results are three levels off.
        const bool scales = target->width != source->width || target->height != source->height;
        scaler = sws_getContext(
            static_cast<int>(source->width), static_cast<int>(source->height),
            static_cast<AVPixelFormat>(from->ffmpegFormat), static_cast<int>(target->width),
            static_cast<int>(target->height), static_cast<AVPixelFormat>(to->ffmpegFormat),
            (scales ? SWS_BILINEAR : SWS_POINT) | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr,
            nullptr, nullptr);
        if (scaler == nullptr)
            return false;
        sws_setColorspaceDetails(scaler, sws_getCoefficients(SwsColourspace(source->colour.matrix)),
                                 source->colour.fullRange ? 1 : 0,
                                 sws_getCoefficients(SwsColourspace(targetColour.matrix)),
                                 targetColour.fullRange ? 1 : 0, 0, 1 << 16, 1 << 16);
        scalerFormat = source->pixelFormat;
        scalerWidth = source->width;
        scalerHeight = source->height;
        scalerColour = source->colour;
        scalerTargetFormat = target->pixelFormat;
        scalerTargetWidth = target->width;
        scalerTargetHeight = target->height;
        return true;
    }

    bool ConvertWithSwscale(CVPixelBufferRef source, CVPixelBufferRef target) {
        const PixelFormatInfo* from = FindPixelFormat(source->pixelFormat);
        const PixelFormatInfo* to = FindPixelFormat(target->pixelFormat);
        YCbCrColour colour = DefaultColour(target->pixelFormat);
        if (from->isYCbCr && to->isYCbCr)
            colour.matrix = source->colour.matrix;
        // A format libswscale does not handle is repacked by libyuv, code for code, from or
        // into the stand-in libswscale works in.
        const PixelFormatInfo* fromStandIn = SwscaleFormat(from->pixelFormat);
        const PixelFormatInfo* toStandIn = SwscaleFormat(to->pixelFormat);
        CVPixelBufferRef input = source, output = target;
        bool converted = true;
        if (fromStandIn != from) {
            input = PooledBuffer(standInSourcePool, fromStandIn->pixelFormat, source->width,
                                 source->height);
            converted =
                input != nullptr &&
                Repack(from->pixelFormat, PlanesOf(source), input->pixelFormat, PlanesOf(input),
                       static_cast<int>(source->width), static_cast<int>(source->height), scratch);
            if (converted)
                input->colour = source->colour;
        }
        if (converted && toStandIn != to) {
            output = PooledBuffer(standInTargetPool, toStandIn->pixelFormat, target->width,
                                  target->height);
            converted = output != nullptr;
        }
        converted = converted && PrepareScaler(input, output, colour);
        if (converted) {
            const Planes in = PlanesOf(input), out = PlanesOf(output);
            sws_scale(scaler, in.data, in.stride, 0, static_cast<int>(input->height), out.data,
                      out.stride);
        }
        if (converted && output != target)
            converted =
                Repack(output->pixelFormat, PlanesOf(output), to->pixelFormat, PlanesOf(target),
                       static_cast<int>(target->width), static_cast<int>(target->height), scratch);
        if (input != source)
            CVPixelBufferRelease(input);
        if (output != target)
            CVPixelBufferRelease(output);
        target->colour = colour;
        return converted;
    }
};

VideoConverter::VideoConverter(Engine engine) : implementation(new Implementation(engine)) {}

VideoConverter::~VideoConverter() = default;

CVPixelBufferRef VideoConverter::Convert(CVPixelBufferRef source, OSType pixelFormat, size_t width,
                                         size_t height) {
    if (source == nullptr)
        return nullptr;
    const OSType format =
        pixelFormat != 0 ? CanonicalPixelFormat(pixelFormat) : source->pixelFormat;
    const size_t targetWidth = width != 0 ? width : source->width;
    const size_t targetHeight = height != 0 ? height : source->height;
    ConversionPath path = ChooseConversionPath(source->pixelFormat, source->width, source->height,
                                               format, targetWidth, targetHeight);
    implementation->lastPath = path;
    if (path == ConversionPath::Identity)
        return CVPixelBufferRetain(source);
    if (path == ConversionPath::Impossible)
        return nullptr;
    if (implementation->engine == Engine::Swscale)
        path = ConversionPath::Swscale;
    CVPixelBufferRef target =
        implementation->PooledBuffer(implementation->pool, format, targetWidth, targetHeight);
    if (target == nullptr)
        return nullptr;
    const bool converted = path == ConversionPath::Libyuv
                               ? implementation->ConvertWithLibyuv(source, target)
                               : implementation->ConvertWithSwscale(source, target);
    if (!converted) {
        CVPixelBufferRelease(target);
        return nullptr;
    }
    implementation->lastPath = path;
    return target;
}

size_t VideoConverter::PooledBufferCount() const {
    return implementation->pool != nullptr ? implementation->pool->allocatedCount() : 0;
}

ConversionPath VideoConverter::LastPath() const {
    return implementation->lastPath;
}

bool ConvertPlanesWithLibyuv(OSType from, const uint8_t* const planes[], const int strides[],
                             YCbCrColour colour, OSType to, uint8_t* const targetPlanes[],
                             const int targetStrides[], size_t width, size_t height) {
    from = CanonicalPixelFormat(from);
    to = CanonicalPixelFormat(to);
    if (from == to ||
        ChooseConversionPath(from, width, height, to, width, height) != ConversionPath::Libyuv)
        return false;
    Planes source, target;
    for (int plane = 0; plane < 3; ++plane) {
        source.data[plane] = const_cast<uint8_t*>(planes[plane]);
        source.stride[plane] = strides[plane];
        target.data[plane] = targetPlanes[plane];
        target.stride[plane] = targetStrides[plane];
    }
    thread_local Scratch scratch, rows;
    YCbCrColour written;
    return LibyuvConvert(from, source, colour, to, target, static_cast<int>(width),
                         static_cast<int>(height), written, scratch, rows);
}

bool ConvertPlanarYCbCr(const uint8_t* const planes[3], const int strides[3], int chromaShiftX,
                        int chromaShiftY, YCbCrColour colour, CVPixelBufferRef target) {
    const PixelFormatInfo* info =
        target != nullptr ? FindPixelFormat(target->pixelFormat) : nullptr;
    if (info == nullptr || (info->libyuv & kLibyuvWrites) == 0)
        return false;
    const bool grey = planes[1] == nullptr;
    const bool supported = grey ||
                           (chromaShiftX == 1 && (chromaShiftY == 0 || chromaShiftY == 1)) ||
                           (chromaShiftX == 0 && chromaShiftY == 0);
    if (!supported)
        return false;
    const libyuv::YuvConstants* constants = ConstantsFor(colour);
    const int width = static_cast<int>(target->width), height = static_cast<int>(target->height);
    const int stride = width * 4;
    thread_local Scratch rows, scratch;
    uint8_t* strip = rows.Get(static_cast<size_t>(stride) * kStripRows);
    const Planes out = PlanesOf(target);
    const bool direct = target->pixelFormat == kCVPixelFormatType_32BGRA;
    for (int row = 0; row < height; row += kStripRows) {
        const int count = std::min(kStripRows, height - row);
        const uint8_t* y = planes[0] + static_cast<ptrdiff_t>(row) * strides[0];
        const ptrdiff_t chromaOffset = static_cast<ptrdiff_t>(row >> chromaShiftY);
        const uint8_t* u = grey ? nullptr : planes[1] + chromaOffset * strides[1];
        const uint8_t* v = grey ? nullptr : planes[2] + chromaOffset * strides[2];
        uint8_t* bgra = direct ? out.data[0] + static_cast<ptrdiff_t>(row) * out.stride[0] : strip;
        const int bgraStride = direct ? out.stride[0] : stride;
        int result;
        if (grey)
            result =
                libyuv::I400ToARGBMatrix(y, strides[0], bgra, bgraStride, constants, width, count);
        else if (chromaShiftX == 0)
            result = libyuv::I444ToARGBMatrix(y, strides[0], u, strides[1], v, strides[2], bgra,
                                              bgraStride, constants, width, count);
        else if (chromaShiftY == 0)
            result = libyuv::I422ToARGBMatrix(y, strides[0], u, strides[1], v, strides[2], bgra,
                                              bgraStride, constants, width, count);
        else
            result = libyuv::I420ToARGBMatrix(y, strides[0], u, strides[1], v, strides[2], bgra,
                                              bgraStride, constants, width, count);
        if (result != 0 || (!direct && !WriteFromBGRA(target->pixelFormat, strip, stride,
                                                      FromRow(out, target->pixelFormat, row), width,
                                                      count, scratch)))
            return false;
    }
    target->colour = DefaultColour(target->pixelFormat);
    return true;
}
