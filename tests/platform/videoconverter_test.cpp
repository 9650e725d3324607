// The video converter: the source itself when nothing changes, correct pixels in every format it
// converts between, scaling, pooled buffers, and a defined answer for what it cannot convert.
#include <gtest/gtest.h>
#include <cstdlib>
#include <vector>

#include "platform/devices/virtual/testpattern.h"
#include "platform/pixelformats.h"
#include "platform/videoconverter.h"

namespace {

CVPixelBufferRef Pattern(OSType format, size_t width, size_t height, uint64_t frame) {
    CVPixelBufferRef buffer = nullptr;
    EXPECT_EQ(kCVReturnSuccess,
              CVPixelBufferCreate(nullptr, width, height, format, nullptr, &buffer));
    TestPattern(format, width, height).Draw(buffer, frame);
    return buffer;
}

// Largest difference of any colour component between a BGRA buffer and the pattern's colours.
int WorstBGRAError(CVPixelBufferRef bgra, uint64_t frame) {
    CVPixelBufferLockBaseAddress(bgra, 0);
    const auto* base = static_cast<const unsigned char*>(CVPixelBufferGetBaseAddress(bgra));
    const size_t width = CVPixelBufferGetWidth(bgra), height = CVPixelBufferGetHeight(bgra);
    int worst = 0;
    for (size_t y = 0; y < height; ++y)
        for (size_t x = 0; x < width; ++x) {
            uint8_t rgb[3];
            TestPattern::Pixel(width, height, frame, x, y, rgb);
            const unsigned char* p = base + y * CVPixelBufferGetBytesPerRow(bgra) + x * 4;
            worst = std::max(
                {worst, std::abs(p[2] - rgb[0]), std::abs(p[1] - rgb[1]), std::abs(p[0] - rgb[2])});
        }
    CVPixelBufferUnlockBaseAddress(bgra, 0);
    return worst;
}

TEST(VideoConverter, DeliversTheSourceItselfWhenNothingChanges) {
    VideoConverter converter;
    CVPixelBufferRef source = Pattern(kCVPixelFormatType_422YpCbCr8, 64, 48, 0);
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

// Each format the camera can deliver, converted to BGRA, shows the pattern's colours; and BGRA
// converted into each format and back again does too. Edges lie on even pixels, so 4:2:x
// formats are exact up to rounding.
TEST(VideoConverter, ConvertsEveryFormatWithCorrectColours) {
    const OSType formats[] = {
        kCVPixelFormatType_422YpCbCr8,
        kCVPixelFormatType_422YpCbCr8_yuvs,
        kCVPixelFormatType_32BGRA,
        kCVPixelFormatType_32ARGB,
        kCVPixelFormatType_24RGB,
        kCVPixelFormatType_24BGR,
        kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange,
        kCVPixelFormatType_420YpCbCr8Planar,
    };
    const uint64_t frame = 7;
    for (OSType format : formats) {
        SCOPED_TRACE(testing::Message() << std::hex << format);
        VideoConverter toBGRA, there;
        CVPixelBufferRef source = Pattern(format, 160, 120, frame);
        CVPixelBufferRef bgra = toBGRA.Convert(source, kCVPixelFormatType_32BGRA, 0, 0);
        ASSERT_NE(nullptr, bgra);
        EXPECT_LE(WorstBGRAError(bgra, frame), 6);

        CVPixelBufferRef converted = there.Convert(bgra, format, 0, 0);
        ASSERT_NE(nullptr, converted);
        EXPECT_EQ(format, CVPixelBufferGetPixelFormatType(converted));
        VideoConverter back;
        CVPixelBufferRef again = back.Convert(converted, kCVPixelFormatType_32BGRA, 0, 0);
        ASSERT_NE(nullptr, again);
        EXPECT_LE(WorstBGRAError(again, frame), 8);
        for (CVPixelBufferRef b : {source, bgra, converted, again})
            CVPixelBufferRelease(b);
    }
}

TEST(VideoConverter, ScalesToTheAskedSize) {
    VideoConverter converter;
    CVPixelBufferRef source = Pattern(kCVPixelFormatType_422YpCbCr8, 1280, 720, 0);
    CVPixelBufferRef out = converter.Convert(source, kCVPixelFormatType_32BGRA, 320, 180);
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(320u, CVPixelBufferGetWidth(out));
    EXPECT_EQ(180u, CVPixelBufferGetHeight(out));
    // Away from edges, a scaled bar keeps its colour: sample the middle of the first bar.
    CVPixelBufferLockBaseAddress(out, 0);
    const auto* p = static_cast<const unsigned char*>(CVPixelBufferGetBaseAddress(out)) +
                    90 * CVPixelBufferGetBytesPerRow(out) + 20 * 4;
    uint8_t rgb[3];
    TestPattern::Pixel(1280, 720, 0, 80, 360, rgb);
    EXPECT_NEAR(rgb[0], p[2], 8);
    EXPECT_NEAR(rgb[1], p[1], 8);
    EXPECT_NEAR(rgb[2], p[0], 8);
    CVPixelBufferUnlockBaseAddress(out, 0);
    CVPixelBufferRelease(out);
    CVPixelBufferRelease(source);
}

TEST(VideoConverter, ReusesPooledBuffersOnceTheyAreReleased) {
    VideoConverter converter;
    CVPixelBufferRef source = Pattern(kCVPixelFormatType_422YpCbCr8, 64, 48, 0);
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
    CVPixelBufferRef source = Pattern(kCVPixelFormatType_422YpCbCr8, 64, 48, 0);
    EXPECT_EQ(nullptr, converter.Convert(source, 0x3F3F3F3F, 0, 0)) << "an unknown format";
    EXPECT_EQ(nullptr, converter.Convert(source, kCVPixelFormatType_32BGRA, 1u << 20, 1u << 20))
        << "a size no buffer can have";
    EXPECT_EQ(nullptr, converter.Convert(nullptr, kCVPixelFormatType_32BGRA, 0, 0));
    CVPixelBufferRelease(source);
}

} // namespace
