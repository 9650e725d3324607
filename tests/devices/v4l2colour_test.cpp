// What a V4L2 driver's colour description means for conversion: vivid's HD formats (BT.709)
// and SD formats (SMPTE 170M, that is BT.601), webcams' sRGB and JPEG colorspaces, and explicit
// encodings and quantizations that override the colorspace's defaults.
#include "platform/devices/v4l2/v4l2colour.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

namespace {

TEST(V4L2Colour, DefaultsFollowTheColorspace) {
    const YCbCrColour hd = V4L2Colour(V4L2_COLORSPACE_REC709, 0, 0);
    EXPECT_EQ(YCbCrMatrix::BT709, hd.matrix);
    EXPECT_FALSE(hd.fullRange);
    const YCbCrColour sd = V4L2Colour(V4L2_COLORSPACE_SMPTE170M, 0, 0);
    EXPECT_EQ(YCbCrMatrix::BT601, sd.matrix);
    EXPECT_FALSE(sd.fullRange);
    EXPECT_EQ(YCbCrMatrix::BT601, V4L2Colour(V4L2_COLORSPACE_SRGB, 0, 0).matrix);
    const YCbCrColour jpeg = V4L2Colour(V4L2_COLORSPACE_JPEG, 0, 0);
    EXPECT_EQ(YCbCrMatrix::BT601, jpeg.matrix);
    EXPECT_TRUE(jpeg.fullRange);
    EXPECT_EQ(YCbCrMatrix::BT2020, V4L2Colour(V4L2_COLORSPACE_BT2020, 0, 0).matrix);
    EXPECT_EQ(YCbCrColour(), V4L2Colour(V4L2_COLORSPACE_DEFAULT, 0, 0));
}

TEST(V4L2Colour, ExplicitEncodingAndQuantizationWin) {
    const YCbCrColour colour =
        V4L2Colour(V4L2_COLORSPACE_SRGB, V4L2_YCBCR_ENC_709, V4L2_QUANTIZATION_FULL_RANGE);
    EXPECT_EQ(YCbCrMatrix::BT709, colour.matrix);
    EXPECT_TRUE(colour.fullRange);
    EXPECT_FALSE(V4L2Colour(V4L2_COLORSPACE_JPEG, V4L2_YCBCR_ENC_601, V4L2_QUANTIZATION_LIM_RANGE)
                     .fullRange);
}

} // namespace
