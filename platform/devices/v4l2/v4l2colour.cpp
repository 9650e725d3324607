#include "platform/devices/v4l2/v4l2colour.h"

#include <linux/videodev2.h>

YCbCrColour V4L2Colour(uint32_t colorspace, uint32_t ycbcrEncoding, uint32_t quantization) {
    if (ycbcrEncoding == V4L2_YCBCR_ENC_DEFAULT)
        ycbcrEncoding = V4L2_MAP_YCBCR_ENC_DEFAULT(colorspace);
    if (quantization == V4L2_QUANTIZATION_DEFAULT)
        quantization = V4L2_MAP_QUANTIZATION_DEFAULT(false, colorspace, ycbcrEncoding);
    YCbCrColour colour;
    switch (ycbcrEncoding) {
    case V4L2_YCBCR_ENC_709:
    case V4L2_YCBCR_ENC_XV709:
    case V4L2_YCBCR_ENC_SMPTE240M: // within a level or two of BT.709
        colour.matrix = YCbCrMatrix::BT709;
        break;
    case V4L2_YCBCR_ENC_BT2020:
    case V4L2_YCBCR_ENC_BT2020_CONST_LUM:
        colour.matrix = YCbCrMatrix::BT2020;
        break;
    default: // 601, xvYCC 601, sYCC
        colour.matrix = YCbCrMatrix::BT601;
        break;
    }
    colour.fullRange = quantization == V4L2_QUANTIZATION_FULL_RANGE;
    return colour;
}
