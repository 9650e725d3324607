// Colour bars to check pictures against: the 75% bars the built-in test camera and vivid draw
// (and the tests draw for themselves), their Y'CbCr codes from the standards' equations, and
// readers that sample pixels from pictures in memory and from PPM images.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/corevideo.h"
#include "platform/pixelformats.h"

// White, yellow, cyan, green, magenta, red, blue, black, as R'G'B' at 75% of full level.
extern const uint8_t kColourBars[8][3];

// The middle column of bar `bar` in a picture `width` wide, on an even pixel (a chroma site).
size_t BarMiddle(size_t width, int bar);

// The Y'CbCr codes of an R'G'B' colour in a matrix and range, unrounded: video range puts
// luma in 16-235 and chroma in 16-240, full range both in 0-255.
std::array<double, 3> YCbCrOf(const uint8_t rgb[3], YCbCrColour colour);

// Where a picture's planes start and how long their rows are.
struct PicturePlanes {
    uint8_t* data[3] = {nullptr, nullptr, nullptr};
    size_t bytesPerRow[3] = {0, 0, 0};
};
PicturePlanes PlanesOf(CVPixelBufferRef buffer);

// The bytes holding pixel (x, y)'s components, R G B or Y' Cb Cr in that order, for formats
// whose components are whole bytes; empty for other formats.
std::vector<uint8_t*> ComponentsAt(OSType format, const PicturePlanes& planes, size_t x, size_t y);
// Pixel (x, y) as three levels: the components above, 5-6-5 RGB widened to 0-255, or grey
// three times.
std::array<double, 3> SampleAt(OSType format, const PicturePlanes& planes, size_t x, size_t y);

// An 8-bit RGB image, as a screenshot or a decoded PNG file gives it.
struct RGBImage {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;
    bool Has(int x, int y) const { return x >= 0 && x < width && y >= 0 && y < height; }
    const uint8_t* At(int x, int y) const { return &rgb[(size_t(y) * width + x) * 3]; }
};
// The binary PPM a shell command writes to its output (ImageMagick's `import ... ppm:-`,
// ffmpeg decoding a file to `-f image2pipe -c:v ppm -`); an empty image when there is none.
RGBImage ReadPPMFrom(const std::string& command);
// A picture file (a PNG, say) decoded by ffmpeg; an empty image when it cannot be read.
RGBImage ReadImageFile(const std::string& path);

// Where a frame of frameWidth x frameHeight lands in an image: scaled to fit, centred.
struct PictureArea {
    PictureArea(const RGBImage& image, int frameWidth, int frameHeight);
    int X(double frameX) const { return static_cast<int>(left + frameX * scale); }
    int Y(double frameY) const { return static_cast<int>(top + frameY * scale); }
    double scale, left, top;
};

// What is wrong with the bars of a frameWidth x frameHeight picture shown in `image`: empty
// when every bar shows its colour within `tolerance` at 40% of the frame's height (below a
// burnt-in counter), at one of two places across it (a moving bar may cover the other); else
// the image's size and the colour seen at each bar.
std::string WrongBars(const RGBImage& image, int frameWidth, int frameHeight, int tolerance);
