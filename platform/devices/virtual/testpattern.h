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
    // What the camera's picture controls ask of the drawing; the defaults draw the pattern as
    // Pixel describes it.
    struct Look {
        int brightness = 128; // added to R, G and B, less 128
        int contrast = 128;   // each channel's distance from 128 scaled by contrast / 128
        int saturation = 128; // the colour's distance from its grey scaled by saturation / 128
        int hue = 0;          // degrees the colour turns around the grey axis
        int pattern = 0;      // kPatternColourBars, kPatternGreyBars or kPatternBlack
        bool operator==(const Look& other) const;
        bool operator!=(const Look& other) const { return !(*this == other); }
    };
    enum { kPatternColourBars = 0, kPatternGreyBars = 1, kPatternBlack = 3 };

    TestPattern(OSType pixelFormat, size_t width, size_t height);
    // Changes how the following pictures look; redraws the bars only when the look changed.
    void SetLook(const Look& look);
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
    void DrawBackground();

    OSType format;
    size_t width, height;
    Look look;
    uint8_t bars[8][3], white[3], black[3]; // the pattern's colours in the current look
    std::vector<unsigned char> background;  // the bars, drawn once per look in the buffer layout
};
