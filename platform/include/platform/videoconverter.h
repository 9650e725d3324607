// Converts and scales pixel buffers into buffers from its own pool: libyuv for the pairs the
// pixel-format table says it handles (near memory speed), libswscale for the rest. Both honour
// the source's matrix and range. Used by one capture thread at a time.
#pragma once

#include <memory>

#include "platform/corevideo.h"

// Which library converts a pair of formats and sizes.
enum class ConversionPath { Impossible, Identity, Libyuv, Swscale };

// The path a frame of `from` at fromWidth x fromHeight takes to `to` at toWidth x toHeight,
// from the libyuv abilities in the pixel-format table.
ConversionPath ChooseConversionPath(OSType from, size_t fromWidth, size_t fromHeight, OSType to,
                                    size_t toWidth, size_t toHeight);

class VideoConverter {
public:
    // Swscale sends every conversion through libswscale: for comparisons in tests and the
    // benchmark.
    enum class Engine { Fastest, Swscale };

    explicit VideoConverter(Engine engine = Engine::Fastest);
    ~VideoConverter();
    VideoConverter(const VideoConverter&) = delete;
    VideoConverter& operator=(const VideoConverter&) = delete;

    // The buffer to deliver for source when the wanted format is pixelFormat (0: the source's)
    // at width x height (0: the source's): the source itself, retained, when it already is
    // that (no pixel is copied); otherwise a converted buffer from the pool. Null when the
    // conversion is impossible (an unknown format or size). The caller releases the result.
    // A Y'CbCr result keeps the source's matrix when only the packing changes; otherwise it is
    // BT.601, in the range of its format ('420f' full, the others video).
    CVPixelBufferRef Convert(CVPixelBufferRef source, OSType pixelFormat, size_t width,
                             size_t height);

    // Buffers the pool has made, for tests of reuse.
    size_t PooledBufferCount() const;
    // The path the last conversion took.
    ConversionPath LastPath() const;

private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation;
};

// The table format libswscale works in for `format`: its own entry when libswscale reads and
// writes it, otherwise its stand-in, which libyuv repacks to and from it code for code ('2vuy'
// for '422v' with FFmpeg 5.1). Null for an unknown format.
const PixelFormatInfo* SwscaleFormat(OSType format);

// True when a frame in `source` format and size needs no conversion to be delivered as
// pixelFormat at width x height (0 meaning "as it is").
bool VideoConversionIsIdentity(OSType sourceFormat, size_t sourceWidth, size_t sourceHeight,
                               OSType pixelFormat, size_t width, size_t height);

// Converts one width x height picture between planes the caller owns, through libyuv, when the
// pixel-format table gives the pair to libyuv (as the converter does; `colour` is the source's).
// False otherwise, the target untouched. Any thread.
bool ConvertPlanesWithLibyuv(OSType from, const uint8_t* const planes[], const int strides[],
                             YCbCrColour colour, OSType to, uint8_t* const targetPlanes[],
                             const int targetStrides[], size_t width, size_t height);

// Writes a planar Y'CbCr picture of target's size into target through libyuv: chroma planes
// subsampled by 2^chromaShiftX across and 2^chromaShiftY down (4:2:2 is 1, 0; 4:2:0 1, 1;
// 4:4:4 0, 0), or luma alone when planes[1] is null. False when libyuv cannot read that
// subsampling or write target's format.
bool ConvertPlanarYCbCr(const uint8_t* const planes[3], const int strides[3], int chromaShiftX,
                        int chromaShiftY, YCbCrColour colour, CVPixelBufferRef target);
