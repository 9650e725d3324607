// The V4L2 side of the pixel-format table, checked against the kernel's own format codes and the
// byte order the V4L2 documentation gives each of them: a V4L2 format must find the Core Video
// format that stores the same bytes in the same order.
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include "platform/pixelformats.h"

TEST(PixelFormats, V4L2FormatsFindTheCoreVideoFormatOfTheSameBytes) {
    const struct Case {
        uint32_t v4l2;
        const char* memory; // bytes in memory, first to last, as V4L2 documents them
        OSType coreVideo;
        bool own; // the Core Video format's entry names this V4L2 format
    } cases[] = {
        {V4L2_PIX_FMT_ABGR32, "B G R A", kCVPixelFormatType_32BGRA, true},
        {V4L2_PIX_FMT_XBGR32, "B G R X", kCVPixelFormatType_32BGRA, false},
        {V4L2_PIX_FMT_BGR32, "B G R X", kCVPixelFormatType_32BGRA, false},
        {V4L2_PIX_FMT_ARGB32, "A R G B", kCVPixelFormatType_32ARGB, true},
        {V4L2_PIX_FMT_XRGB32, "X R G B", kCVPixelFormatType_32ARGB, false},
        {V4L2_PIX_FMT_RGB32, "X R G B", kCVPixelFormatType_32ARGB, false},
        {V4L2_PIX_FMT_RGBA32, "R G B A", kCVPixelFormatType_32RGBA, true},
        {V4L2_PIX_FMT_RGBX32, "R G B X", kCVPixelFormatType_32RGBA, false},
        {V4L2_PIX_FMT_BGRA32, "A B G R", kCVPixelFormatType_32ABGR, true},
        {V4L2_PIX_FMT_BGRX32, "X B G R", kCVPixelFormatType_32ABGR, false},
        {V4L2_PIX_FMT_RGB24, "R G B", kCVPixelFormatType_24RGB, true},
        {V4L2_PIX_FMT_BGR24, "B G R", kCVPixelFormatType_24BGR, true},
        {V4L2_PIX_FMT_RGB565, "5-6-5 little-endian word", kCVPixelFormatType_16LE565, true},
        {V4L2_PIX_FMT_RGB565X, "5-6-5 big-endian word", kCVPixelFormatType_16BE565, true},
        {V4L2_PIX_FMT_GREY, "Y", kCVPixelFormatType_OneComponent8, true},
        {V4L2_PIX_FMT_UYVY, "Cb Y0 Cr Y1", kCVPixelFormatType_422YpCbCr8, true},
        {V4L2_PIX_FMT_YUYV, "Y0 Cb Y1 Cr", kCVPixelFormatType_422YpCbCr8_yuvs, true},
        {V4L2_PIX_FMT_NV12, "Y plane, CbCr 4:2:0", kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange,
         true},
        {V4L2_PIX_FMT_NV16, "Y plane, CbCr 4:2:2", kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange,
         true},
        {V4L2_PIX_FMT_NV24, "Y plane, CbCr 4:4:4", kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange,
         true},
        {V4L2_PIX_FMT_YUV420, "Y, Cb, Cr planes 4:2:0", kCVPixelFormatType_420YpCbCr8Planar, true},
    };
    for (const Case& c : cases) {
        const std::string name(reinterpret_cast<const char*>(&c.v4l2), 4);
        SCOPED_TRACE(name + ": " + c.memory);
        const PixelFormatInfo* found = FindPixelFormatByV4L2(c.v4l2);
        ASSERT_NE(nullptr, found);
        EXPECT_EQ(c.coreVideo, found->pixelFormat);
        const PixelFormatInfo* entry = FindPixelFormat(c.coreVideo);
        ASSERT_NE(nullptr, entry);
        EXPECT_EQ(c.own, entry->v4l2Format == c.v4l2);
    }
    EXPECT_EQ(nullptr, FindPixelFormatByV4L2(V4L2_PIX_FMT_MJPEG))
        << "compressed: not a pixel layout";
    EXPECT_EQ(nullptr, FindPixelFormatByV4L2(0));
}
