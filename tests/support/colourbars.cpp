#include "support/colourbars.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

const uint8_t kColourBars[8][3] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                                   {191, 0, 191},   {191, 0, 0},   {0, 0, 191},   {0, 0, 0}};

size_t BarMiddle(size_t width, int bar) {
    return (2 * size_t(bar) + 1) * width / 16 & ~size_t(1);
}

std::array<double, 3> YCbCrOf(const uint8_t rgb[3], YCbCrColour colour) {
    // The weights of R' and B' in luma.
    const double kr = colour.matrix == YCbCrMatrix::BT709    ? 0.2126
                      : colour.matrix == YCbCrMatrix::BT2020 ? 0.2627
                                                             : 0.299;
    const double kb = colour.matrix == YCbCrMatrix::BT709    ? 0.0722
                      : colour.matrix == YCbCrMatrix::BT2020 ? 0.0593
                                                             : 0.114;
    const double r = rgb[0] / 255.0, g = rgb[1] / 255.0, b = rgb[2] / 255.0;
    const double y = kr * r + (1 - kr - kb) * g + kb * b;
    const double cb = (b - y) / (2 * (1 - kb)), cr = (r - y) / (2 * (1 - kr));
    const double chroma = colour.fullRange ? 255 : 224;
    return {colour.fullRange ? 255 * y : 16 + 219 * y, 128 + chroma * cb, 128 + chroma * cr};
}

PicturePlanes PlanesOf(CVPixelBufferRef buffer) {
    PicturePlanes planes;
    for (int i = 0; i < 3; ++i) {
        planes.data[i] = buffer->base + buffer->layout.planeOffset[i];
        planes.bytesPerRow[i] = buffer->layout.bytesPerRow[i];
    }
    return planes;
}

std::vector<uint8_t*> ComponentsAt(OSType format, const PicturePlanes& planes, size_t x, size_t y) {
    auto at = [&](int plane, size_t column, size_t row) {
        return planes.data[plane] + row * planes.bytesPerRow[plane] + column;
    };
    const size_t pair = x & ~size_t(1); // the first pixel of the two sharing a chroma sample
    switch (format) {
    case kCVPixelFormatType_422YpCbCr8: // U Y V Y
        return {at(0, x * 2 + 1, y), at(0, pair * 2, y), at(0, pair * 2 + 2, y)};
    case kCVPixelFormatType_422YpCbCr8_yuvs: // Y U Y V
        return {at(0, x * 2, y), at(0, pair * 2 + 1, y), at(0, pair * 2 + 3, y)};
    case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange:
    case kCVPixelFormatType_420YpCbCr8BiPlanarFullRange:
        return {at(0, x, y), at(1, pair, y / 2), at(1, pair + 1, y / 2)};
    case kCVPixelFormatType_420YpCbCr8Planar:
        return {at(0, x, y), at(1, x / 2, y / 2), at(2, x / 2, y / 2)};
    case kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange:
        return {at(0, x, y), at(1, pair, y), at(1, pair + 1, y)};
    case kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange:
        return {at(0, x, y), at(1, x * 2, y), at(1, x * 2 + 1, y)};
    case kCVPixelFormatType_32BGRA:
        return {at(0, x * 4 + 2, y), at(0, x * 4 + 1, y), at(0, x * 4, y)};
    case kCVPixelFormatType_32ARGB:
        return {at(0, x * 4 + 1, y), at(0, x * 4 + 2, y), at(0, x * 4 + 3, y)};
    case kCVPixelFormatType_32RGBA:
        return {at(0, x * 4, y), at(0, x * 4 + 1, y), at(0, x * 4 + 2, y)};
    case kCVPixelFormatType_32ABGR:
        return {at(0, x * 4 + 3, y), at(0, x * 4 + 2, y), at(0, x * 4 + 1, y)};
    case kCVPixelFormatType_24RGB:
        return {at(0, x * 3, y), at(0, x * 3 + 1, y), at(0, x * 3 + 2, y)};
    case kCVPixelFormatType_24BGR:
        return {at(0, x * 3 + 2, y), at(0, x * 3 + 1, y), at(0, x * 3, y)};
    }
    return {};
}

std::array<double, 3> SampleAt(OSType format, const PicturePlanes& planes, size_t x, size_t y) {
    const uint8_t* row = planes.data[0] + y * planes.bytesPerRow[0];
    if (format == kCVPixelFormatType_OneComponent8)
        return {double(row[x]), double(row[x]), double(row[x])};
    if (format == kCVPixelFormatType_16LE565 || format == kCVPixelFormatType_16BE565) {
        const uint8_t* p = row + x * 2;
        const unsigned word =
            format == kCVPixelFormatType_16LE565 ? p[0] | p[1] << 8 : p[0] << 8 | p[1];
        return {(word >> 11) * 255.0 / 31, (word >> 5 & 63) * 255.0 / 63, (word & 31) * 255.0 / 31};
    }
    const std::vector<uint8_t*> components = ComponentsAt(format, planes, x, y);
    if (components.empty())
        return {-1000, -1000, -1000}; // far from any colour, so a check of it fails
    return {double(*components[0]), double(*components[1]), double(*components[2])};
}

RGBImage ReadPPMFrom(const std::string& command) {
    RGBImage image;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return image;
    int width = 0, height = 0, maximum = 0;
    if (fscanf(pipe, "P6 %d %d %d", &width, &height, &maximum) == 3 && maximum == 255 &&
        width > 0 && height > 0 && fgetc(pipe) != EOF) {
        image.rgb.resize(size_t(width) * height * 3);
        if (fread(image.rgb.data(), 1, image.rgb.size(), pipe) == image.rgb.size()) {
            image.width = width;
            image.height = height;
        }
    }
    pclose(pipe);
    return image;
}

PictureArea::PictureArea(const RGBImage& image, int frameWidth, int frameHeight)
    : scale(std::min(double(image.width) / frameWidth, double(image.height) / frameHeight)),
      left((image.width - frameWidth * scale) / 2), top((image.height - frameHeight * scale) / 2) {}

std::string WrongBars(const RGBImage& image, int frameWidth, int frameHeight, int tolerance) {
    if (image.width == 0)
        return "no image";
    const PictureArea area(image, frameWidth, frameHeight);
    const int y = area.Y(0.4 * frameHeight);
    auto near = [&](int x, const uint8_t* colour) {
        if (!image.Has(x, y))
            return false;
        for (int c = 0; c < 3; ++c)
            if (std::abs(image.At(x, y)[c] - colour[c]) > tolerance)
                return false;
        return true;
    };
    bool right = true;
    std::string seen = std::to_string(image.width) + " x " + std::to_string(image.height) + ":";
    for (int bar = 0; bar < 8; ++bar) {
        const int first = area.X((bar + 0.3) * frameWidth / 8);
        right = right && (near(first, kColourBars[bar]) ||
                          near(area.X((bar + 0.7) * frameWidth / 8), kColourBars[bar]));
        if (image.Has(first, y))
            for (int c = 0; c < 3; ++c)
                seen += (c == 0 ? " " : ",") + std::to_string(image.At(first, y)[c]);
    }
    return right ? "" : seen;
}

RGBImage ReadImageFile(const std::string& path) {
    return ReadPPMFrom("ffmpeg -v error -i '" + path + "' -f image2pipe -c:v ppm - 2>/dev/null");
}
