// The matrix and range of a V4L2 stream's Y'CbCr pixels, from what the driver reports with its
// format: colorspace, Y'CbCr encoding and quantization, where 0 stands for the colorspace's
// default.
#pragma once

#include <cstdint>

#include "platform/pixelformats.h"

YCbCrColour V4L2Colour(uint32_t colorspace, uint32_t ycbcrEncoding, uint32_t quantization);
