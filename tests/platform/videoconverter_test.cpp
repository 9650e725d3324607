// The video converter: the source itself when nothing changes, correct pixels in every format it
// converts between, in the source's matrix and range, through libyuv and libswscale alike,
// scaling, pooled buffers, and a defined answer for what it cannot convert.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <tuple>
#include <vector>

#include "platform/pixelformats.h"
#include "platform/videoconverter.h"
#include "support/colourbars.h"

namespace {

// Every format the converter reads and writes through one library or the other.
const OSType kFormats[] = {
    kCVPixelFormatType_422YpCbCr8,
    kCVPixelFormatType_422YpCbCr8_yuvs,
    kCVPixelFormatType_32BGRA,
    kCVPixelFormatType_32ARGB,
    kCVPixelFormatType_32RGBA,
    kCVPixelFormatType_24RGB,
    kCVPixelFormatType_24BGR,
    kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange,
    kCVPixelFormatType_420YpCbCr8BiPlanarFullRange,
    kCVPixelFormatType_420YpCbCr8Planar,
    kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange,
};

bool IsYCbCr(OSType format) {
    return FindPixelFormat(format)->isYCbCr;
}

// 75% colour bars, in the top half left to right and in the bottom half right to left, so
// there are edges across and down; every edge falls on an even pixel, a chroma site's edge.
void BarColour(size_t width, size_t height, size_t x, size_t y, uint8_t rgb[3]) {
    size_t bar = std::min<size_t>(7, (x & ~size_t(1)) * 8 / width);
    if (y >= (height / 2 & ~size_t(1)))
        bar = 7 - bar;
    std::copy(kColourBars[bar], kColourBars[bar] + 3, rgb);
}

// The bar's colour as a buffer of `format` holds it: R, G, B, or Y'CbCr codes, rounded, in
// `colour`.
void ExpectedBar(OSType format, YCbCrColour colour, size_t width, size_t height, size_t x, size_t y,
                 uint8_t values[3]) {
    BarColour(width, height, x, y, values);
    if (!IsYCbCr(format))
        return;
    const std::array<double, 3> codes = YCbCrOf(values, colour);
    for (int i = 0; i < 3; ++i)
        values[i] = static_cast<uint8_t>(std::clamp(std::lround(codes[i]), 0L, 255L));
}

std::vector<unsigned char*> Components(CVPixelBufferRef buffer, size_t x, size_t y) {
    return ComponentsAt(buffer->pixelFormat, PlanesOf(buffer), x, y);
}

// A buffer of colour bars in any format, Y'CbCr ones encoded in `colour`.
CVPixelBufferRef Bars(OSType format, size_t width, size_t height, YCbCrColour colour) {
    CVPixelBufferRef buffer = nullptr;
    EXPECT_EQ(kCVReturnSuccess,
              CVPixelBufferCreate(nullptr, width, height, format, nullptr, &buffer));
    if (IsYCbCr(format))
        buffer->colour = colour;
    for (size_t y = 0; y < height; ++y)
        for (size_t x = 0; x < width; ++x) {
            uint8_t values[3];
            ExpectedBar(format, colour, width, height, x, y, values);
            std::vector<unsigned char*> components = Components(buffer, x, y);
            for (int i = 0; i < 3; ++i)
                *components[i] = values[i];
            if (format == kCVPixelFormatType_32BGRA || format == kCVPixelFormatType_32RGBA)
                components[0][format == kCVPixelFormatType_32BGRA ? 1 : 3] = 255;
            if (format == kCVPixelFormatType_32ARGB)
                components[0][-1] = 255;
        }
    return buffer;
}

// The largest difference, over every pixel, between a buffer and the bars it should show: as
// R, G, B for RGB formats, as Y'CbCr codes in the buffer's own colour otherwise.
int WorstBarsError(CVPixelBufferRef buffer) {
    int worst = 0;
    for (size_t y = 0; y < buffer->height; ++y)
        for (size_t x = 0; x < buffer->width; ++x) {
            uint8_t expected[3];
            ExpectedBar(buffer->pixelFormat, buffer->colour, buffer->width, buffer->height, x, y,
                        expected);
            std::vector<unsigned char*> components = Components(buffer, x, y);
            for (int i = 0; i < 3; ++i)
                worst = std::max(worst, std::abs(*components[i] - expected[i]));
        }
    return worst;
}

TEST(VideoConverter, DeliversTheSourceItselfWhenNothingChanges) {
    VideoConverter converter;
    CVPixelBufferRef source = Bars(kCVPixelFormatType_422YpCbCr8, 64, 48, YCbCrColour());
    for (auto [format, width, height] : {std::tuple<OSType, size_t, size_t>{0, 0, 0},
                                         {kCVPixelFormatType_422YpCbCr8, 0, 0},
                                         {kCVPixelFormatType_422YpCbCr8, 64, 48}}) {
        CVPixelBufferRef out = converter.Convert(source, format, width, height);
        EXPECT_EQ(source, out) << "no pixel is copied";
        CVPixelBufferRelease(out);
    }
    EXPECT_EQ(0u, converter.PooledBufferCount());
    CVPixelBufferRelease(source);
}

TEST(VideoConverter, ReusesPooledBuffersOnceTheyAreReleased) {
    VideoConverter converter;
    CVPixelBufferRef source = Bars(kCVPixelFormatType_422YpCbCr8, 64, 48, YCbCrColour());
    for (int i = 0; i < 20; ++i)
        CVPixelBufferRelease(converter.Convert(source, kCVPixelFormatType_32BGRA, 0, 0));
    EXPECT_EQ(1u, converter.PooledBufferCount());

    // Buffers still held by a host are not handed out again.
    std::vector<CVPixelBufferRef> held;
    for (int i = 0; i < 3; ++i)
        held.push_back(converter.Convert(source, kCVPixelFormatType_32BGRA, 0, 0));
    EXPECT_NE(held[0], held[1]);
    EXPECT_NE(held[1], held[2]);
    EXPECT_EQ(3u, converter.PooledBufferCount());
    for (CVPixelBufferRef b : held)
        CVPixelBufferRelease(b);
    CVPixelBufferRelease(source);
}

TEST(VideoConverter, RefusesWhatItCannotConvert) {
    VideoConverter converter;
    CVPixelBufferRef source = Bars(kCVPixelFormatType_422YpCbCr8, 64, 48, YCbCrColour());
    EXPECT_EQ(nullptr, converter.Convert(source, 0x3F3F3F3F, 0, 0)) << "an unknown format";
    EXPECT_EQ(nullptr, converter.Convert(source, kCVPixelFormatType_32BGRA, 1u << 20, 1u << 20))
        << "a size no buffer can have";
    EXPECT_EQ(nullptr, converter.Convert(nullptr, kCVPixelFormatType_32BGRA, 0, 0));
    CVPixelBufferRelease(source);
}

struct Case {
    size_t width, height;
    YCbCrColour colour;
};

// BT.601 and BT.709, as V4L2 drivers report them for SD and HD pictures, in both ranges; and
// BT.2020. Small frames whose widths are no multiple of 32, so the vector code's row tails are
// crossed too.
const Case kCases[] = {
    {336, 240, {YCbCrMatrix::BT601, false}},  {336, 240, {YCbCrMatrix::BT601, true}},
    {176, 144, {YCbCrMatrix::BT709, false}},  {176, 144, {YCbCrMatrix::BT709, true}},
    {176, 144, {YCbCrMatrix::BT2020, false}},
};

// Y'CbCr bars in every matrix and range come out as the right colours in every RGB format,
// within two levels, at every pixel (so chroma is not smeared across the edges), through
// libyuv and through libswscale alike.
TEST(VideoConverter, YCbCrBarsBecomeTheRightColoursInEveryMatrixAndRange) {
    for (const Case& c : kCases)
        for (OSType from : kFormats) {
            if (!IsYCbCr(from) || (FindPixelFormat(from)->fullRange && !c.colour.fullRange))
                continue;
            CVPixelBufferRef source = Bars(from, c.width, c.height, c.colour);
            for (OSType to : kFormats)
                for (auto engine :
                     {VideoConverter::Engine::Fastest, VideoConverter::Engine::Swscale}) {
                    if (IsYCbCr(to))
                        continue;
                    SCOPED_TRACE(testing::Message()
                                 << c.width << "x" << c.height << " matrix " << int(c.colour.matrix)
                                 << " full " << c.colour.fullRange << " "
                                 << FindPixelFormat(from)->name << " to "
                                 << FindPixelFormat(to)->name
                                 << (engine == VideoConverter::Engine::Swscale ? " swscale" : ""));
                    VideoConverter converter(engine);
                    CVPixelBufferRef out = converter.Convert(source, to, 0, 0);
                    ASSERT_NE(nullptr, out);
                    EXPECT_EQ(engine == VideoConverter::Engine::Swscale ? ConversionPath::Swscale
                                                                        : ConversionPath::Libyuv,
                              converter.LastPath());
                    EXPECT_LE(WorstBarsError(out), 2);
                    CVPixelBufferRelease(out);
                }
            CVPixelBufferRelease(source);
        }
}

// libswscale's unscaled copies between Y'CbCr formats leave the codes as they are when the
// range changes, so it is not compared there.
bool SwscaleChangesRange(OSType from, OSType to) {
    return IsYCbCr(from) && IsYCbCr(to) &&
           FindPixelFormat(from)->fullRange != FindPixelFormat(to)->fullRange;
}

// RGB bars become the right Y'CbCr codes (BT.601, in the target's range) in every Y'CbCr
// format; between Y'CbCr formats of one range the codes, matrix included, stay as they were,
// and across ranges they are re-encoded.
TEST(VideoConverter, BarsBecomeTheRightYCbCrCodes) {
    for (OSType from : kFormats)
        for (OSType to : kFormats) {
            if (from == to || !IsYCbCr(to))
                continue;
            for (auto engine : {VideoConverter::Engine::Fastest, VideoConverter::Engine::Swscale}) {
                if (engine == VideoConverter::Engine::Swscale && SwscaleChangesRange(from, to))
                    continue;
                const YCbCrColour hd{YCbCrMatrix::BT709, FindPixelFormat(from)->fullRange};
                CVPixelBufferRef source = Bars(from, 336, 240, hd);
                SCOPED_TRACE(testing::Message()
                             << FindPixelFormat(from)->name << " to " << FindPixelFormat(to)->name
                             << (engine == VideoConverter::Engine::Swscale ? " swscale" : ""));
                VideoConverter converter(engine);
                CVPixelBufferRef out = converter.Convert(source, to, 0, 0);
                ASSERT_NE(nullptr, out);
                EXPECT_EQ(FindPixelFormat(to)->fullRange, out->colour.fullRange);
                const bool keepsCodes =
                    IsYCbCr(from) && hd.fullRange == FindPixelFormat(to)->fullRange;
                EXPECT_EQ(keepsCodes ? YCbCrMatrix::BT709 : YCbCrMatrix::BT601, out->colour.matrix);
                EXPECT_LE(WorstBarsError(out), 2);
                CVPixelBufferRelease(out);
                CVPixelBufferRelease(source);
            }
        }
}

// The table sends grey and the scaling of formats libyuv cannot scale to libswscale.
TEST(VideoConverter, ThePixelFormatTableChoosesThePath) {
    const OSType grey = kCVPixelFormatType_OneComponent8;
    const OSType uyvy = kCVPixelFormatType_422YpCbCr8, bgra = kCVPixelFormatType_32BGRA;
    EXPECT_EQ(ConversionPath::Identity, ChooseConversionPath(uyvy, 64, 48, uyvy, 64, 48));
    EXPECT_EQ(ConversionPath::Libyuv, ChooseConversionPath(uyvy, 64, 48, bgra, 64, 48));
    EXPECT_EQ(ConversionPath::Libyuv, ChooseConversionPath(uyvy, 64, 48, bgra, 32, 24));
    EXPECT_EQ(ConversionPath::Swscale, ChooseConversionPath(bgra, 64, 48, uyvy, 32, 24));
    EXPECT_EQ(ConversionPath::Swscale, ChooseConversionPath(grey, 64, 48, bgra, 64, 48));
    EXPECT_EQ(ConversionPath::Swscale, ChooseConversionPath(bgra, 64, 48, grey, 64, 48));
    EXPECT_EQ(ConversionPath::Impossible, ChooseConversionPath(0x3F3F3F3F, 64, 48, bgra, 64, 48));

    VideoConverter converter;
    CVPixelBufferRef source = Bars(uyvy, 64, 48, YCbCrColour());
    CVPixelBufferRef out = converter.Convert(source, grey, 0, 0);
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(ConversionPath::Swscale, converter.LastPath());
    CVPixelBufferRelease(out);
    CVPixelBufferRelease(source);
}

// Scaling from every format to 'BGRA', and within every format, keeps a bar's colour away from
// its edges, whichever library scales.
TEST(VideoConverter, ScalesEveryFormat) {
    for (OSType format : kFormats)
        for (OSType to : {OSType(kCVPixelFormatType_32BGRA), format}) {
            SCOPED_TRACE(testing::Message()
                         << FindPixelFormat(format)->name << " to " << FindPixelFormat(to)->name);
            CVPixelBufferRef source = Bars(format, 640, 360, YCbCrColour());
            VideoConverter converter, toBGRA;
            CVPixelBufferRef small = converter.Convert(source, to, 160, 90);
            ASSERT_NE(nullptr, small);
            CVPixelBufferRef bgra = toBGRA.Convert(small, kCVPixelFormatType_32BGRA, 0, 0);
            ASSERT_NE(nullptr, bgra);
            // Both quarters of the picture, each mirroring the other's bars.
            for (size_t y : {12, 77}) {
                uint8_t expected[3];
                BarColour(640, 360, 40, y * 4, expected);
                std::vector<unsigned char*> p = Components(bgra, 10, y);
                for (int i = 0; i < 3; ++i)
                    EXPECT_NEAR(expected[i], *p[i], 3) << "row " << y;
            }
            for (CVPixelBufferRef buffer : {source, small, bgra})
                CVPixelBufferRelease(buffer);
        }
}

// Odd sizes, with a last chroma row and column that cover one pixel, in every matrix and range:
// libyuv converts every pair right. (libswscale is off at the odd column in some pairs.) 17 rows
// are a strip of 16 and one of a single row, below the bars' mirror line, so a last chroma row
// left out (or taken from the strip before) shows.
TEST(VideoConverter, OddSizesConvertInEveryPair) {
    for (YCbCrColour colour : {YCbCrColour(), YCbCrColour{YCbCrMatrix::BT709, false},
                               YCbCrColour{YCbCrMatrix::BT709, true}})
        for (OSType from : kFormats)
            for (OSType to : kFormats) {
                if (from == to)
                    continue;
                SCOPED_TRACE(testing::Message()
                             << FindPixelFormat(from)->name << " to " << FindPixelFormat(to)->name);
                CVPixelBufferRef source = Bars(from, 37, 17, colour);
                VideoConverter converter;
                CVPixelBufferRef out = converter.Convert(source, to, 0, 0);
                ASSERT_NE(nullptr, out);
                EXPECT_EQ(ConversionPath::Libyuv, converter.LastPath());
                EXPECT_LE(WorstBarsError(out), 2);
                CVPixelBufferRelease(out);
                CVPixelBufferRelease(source);
            }
}

} // namespace
