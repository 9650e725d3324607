// The virtual cameras' picture: eight colour bars, a white bar moving across them and a box
// with the frame number in white digits. Every edge falls on even coordinates, so the pattern
// is exact in every pixel format, chroma-subsampled ones included.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/corevideo.h"

class TestPattern {
public:
    TestPattern(OSType pixelFormat, size_t width, size_t height);
    // Draws frame `frame` into buffer (of this pattern's format and size).
    void Draw(CVPixelBufferRef buffer, uint64_t frame) const;
    // The colour of pixel (x, y) of frame `frame`, as R, G, B.
    static void Pixel(size_t width, size_t height, uint64_t frame, size_t x, size_t y,
                      uint8_t rgb[3]);

private:
    struct Rect {
        size_t x0, y0, x1, y1; // half-open, even-aligned
    };
    static Rect MovingBar(size_t width, size_t height, uint64_t frame);
    static Rect CounterBox(size_t width, size_t height);
    static size_t DigitScale(size_t height);
    void Fill(CVPixelBufferRef buffer, Rect rect, const uint8_t rgb[3]) const;

    OSType format;
    size_t width, height;
    std::vector<unsigned char> background; // the bars, drawn once in the buffer layout
};
