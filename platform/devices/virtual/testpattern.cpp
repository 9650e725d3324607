#include "testpattern.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// 75% colour bars: white, yellow, cyan, green, magenta, red, blue, black.
const uint8_t kBars[8][3] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                             {191, 0, 191},   {191, 0, 0},   {0, 0, 191},   {0, 0, 0}};
const uint8_t kWhite[3] = {255, 255, 255};
const uint8_t kBlack[3] = {16, 16, 16};

// 5 x 7 digits, one byte per row, bit 4 the leftmost column.
const uint8_t kDigits[10][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}};
constexpr int kCounterDigits = 8;

size_t Even(size_t value) {
    return value & ~static_cast<size_t>(1);
}

size_t BarIndex(size_t width, size_t x) {
    for (size_t bar = 1; bar < 8; ++bar)
        if (x < Even(bar * width / 8))
            return bar - 1;
    return 7;
}

void ToYUV(const uint8_t rgb[3], uint8_t& y, uint8_t& u, uint8_t& v) {
    const int r = rgb[0], g = rgb[1], b = rgb[2];
    y = static_cast<uint8_t>(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16);
    u = static_cast<uint8_t>(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128);
    v = static_cast<uint8_t>(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128);
}

// A colour as `look` changes it: hue, then saturation, contrast and brightness. Each step that
// is at its default leaves the colour exactly as it was.
void Adjust(const uint8_t in[3], const TestPattern::Look& look, uint8_t out[3]) {
    double r = in[0], g = in[1], b = in[2];
    const auto grey = [&] { return 0.299 * r + 0.587 * g + 0.114 * b; };
    if (look.hue != 0) {
        const double y = grey(), u = b - y, v = r - y;
        const double angle = look.hue * M_PI / 180;
        const double u2 = u * std::cos(angle) - v * std::sin(angle);
        const double v2 = u * std::sin(angle) + v * std::cos(angle);
        r = y + v2;
        b = y + u2;
        g = (y - 0.299 * r - 0.114 * b) / 0.587;
    }
    if (look.saturation != 128) {
        const double y = grey(), scale = look.saturation / 128.0;
        r = y + (r - y) * scale;
        g = y + (g - y) * scale;
        b = y + (b - y) * scale;
    }
    double* channels[3] = {&r, &g, &b};
    for (int i = 0; i < 3; ++i) {
        double& c = *channels[i];
        if (look.contrast != 128)
            c = 128 + (c - 128) * look.contrast / 128.0;
        c += look.brightness - 128;
        out[i] = static_cast<uint8_t>(std::lround(std::min(255.0, std::max(0.0, c))));
    }
}

// The digit drawn at column `digit` of the counter for frame `frame`.
int CounterDigit(uint64_t frame, int digit) {
    uint64_t value = frame % 100000000ull;
    for (int i = kCounterDigits - 1; i > digit; --i)
        value /= 10;
    return static_cast<int>(value % 10);
}

} // namespace

size_t TestPattern::DigitScale(size_t height) {
    return std::max<size_t>(2, Even(height / 120));
}

TestPattern::Rect TestPattern::CounterBox(size_t width, size_t height) {
    const size_t scale = DigitScale(height);
    Rect box{16, 16, 16 + (kCounterDigits * 6 + 1) * scale, 16 + 9 * scale};
    box.x1 = std::min(box.x1, Even(width));
    box.y1 = std::min(box.y1, Even(height));
    box.x0 = std::min(box.x0, box.x1);
    box.y0 = std::min(box.y0, box.y1);
    return box;
}

TestPattern::Rect TestPattern::MovingBar(size_t width, size_t height, uint64_t frame) {
    const size_t barWidth = std::max<size_t>(2, Even(width / 40));
    const size_t travel = width > barWidth ? width - barWidth : 1;
    const size_t x0 = Even(static_cast<size_t>((frame * 8) % travel));
    return Rect{x0, 0, std::min(x0 + barWidth, Even(width)), Even(height)};
}

void TestPattern::Pixel(size_t width, size_t height, uint64_t frame, size_t x, size_t y,
                        uint8_t rgb[3]) {
    const Rect box = CounterBox(width, height);
    if (x >= box.x0 && x < box.x1 && y >= box.y0 && y < box.y1) {
        const size_t scale = DigitScale(height);
        const size_t column = (x - box.x0) / scale, row = (y - box.y0) / scale;
        // One cell of margin, then digits of 5 columns and 1 of space.
        if (row >= 1 && row <= 7 && column >= 1) {
            const size_t digit = (column - 1) / 6, within = (column - 1) % 6;
            if (digit < kCounterDigits && within < 5 &&
                (kDigits[CounterDigit(frame, static_cast<int>(digit))][row - 1] >> (4 - within)) &
                    1) {
                memcpy(rgb, kWhite, 3);
                return;
            }
        }
        memcpy(rgb, kBlack, 3);
        return;
    }
    const Rect bar = MovingBar(width, height, frame);
    if (x >= bar.x0 && x < bar.x1 && y < bar.y1) {
        memcpy(rgb, kWhite, 3);
        return;
    }
    memcpy(rgb, kBars[BarIndex(width, x)], 3);
}

bool TestPattern::Look::operator==(const Look& other) const {
    return brightness == other.brightness && contrast == other.contrast &&
           saturation == other.saturation && hue == other.hue && pattern == other.pattern;
}

TestPattern::TestPattern(OSType pixelFormat, size_t width, size_t height)
    : format(CanonicalPixelFormat(pixelFormat)), width(width), height(height) {
    memcpy(bars, kBars, sizeof bars);
    memcpy(white, kWhite, sizeof white);
    memcpy(black, kBlack, sizeof black);
    DrawBackground();
}

void TestPattern::SetLook(const Look& wanted) {
    if (wanted == look)
        return;
    look = wanted;
    for (size_t bar = 0; bar < 8; ++bar) {
        uint8_t colour[3];
        memcpy(colour, kBars[bar], 3);
        if (look.pattern == kPatternGreyBars)
            memset(colour, (77 * colour[0] + 150 * colour[1] + 29 * colour[2] + 128) >> 8, 3);
        else if (look.pattern == kPatternBlack)
            memset(colour, 0, 3);
        Adjust(colour, look, bars[bar]);
    }
    Adjust(kWhite, look, white);
    Adjust(kBlack, look, black);
    DrawBackground();
}

void TestPattern::DrawBackground() {
    CVPixelBufferRef scratch = nullptr;
    if (CVPixelBufferCreate(nullptr, width, height, format, nullptr, &scratch) != kCVReturnSuccess)
        return;
    for (size_t bar = 0; bar < 8; ++bar) {
        const size_t x0 = bar == 0 ? 0 : Even(bar * width / 8);
        const size_t x1 = bar == 7 ? width : Even((bar + 1) * width / 8);
        Fill(scratch, Rect{x0, 0, x1, height}, bars[bar]);
    }
    background.assign(scratch->base, scratch->base + scratch->layout.totalSize);
    CVPixelBufferRelease(scratch);
}

void TestPattern::Draw(CVPixelBufferRef buffer, uint64_t frame) const {
    if (buffer == nullptr || buffer->layout.totalSize != background.size())
        return;
    memcpy(buffer->base, background.data(), background.size());
    if (look.pattern == kPatternBlack)
        return; // nothing moves on a black picture
    Fill(buffer, MovingBar(width, height, frame), white);
    const Rect box = CounterBox(width, height);
    Fill(buffer, box, black);
    const size_t scale = DigitScale(height);
    for (int digit = 0; digit < kCounterDigits; ++digit) {
        const uint8_t* glyph = kDigits[CounterDigit(frame, digit)];
        for (size_t row = 0; row < 7; ++row)
            for (size_t column = 0; column < 5; ++column) {
                if (!((glyph[row] >> (4 - column)) & 1))
                    continue;
                const size_t x0 = box.x0 + (1 + digit * 6 + column) * scale;
                const size_t y0 = box.y0 + (1 + row) * scale;
                Fill(buffer,
                     Rect{x0, y0, std::min(x0 + scale, box.x1), std::min(y0 + scale, box.y1)},
                     white);
            }
    }
}

void TestPattern::Fill(CVPixelBufferRef buffer, Rect rect, const uint8_t rgb[3]) const {
    rect.x1 = std::min(rect.x1, width);
    rect.y1 = std::min(rect.y1, height);
    if (rect.x0 >= rect.x1 || rect.y0 >= rect.y1)
        return;
    uint8_t y, u, v;
    ToYUV(rgb, y, u, v);
    const PixelFormatLayout& layout = buffer->layout;
    unsigned char* base = buffer->base;
    for (size_t row = rect.y0; row < rect.y1; ++row) {
        unsigned char* line = base + layout.planeOffset[0] + row * layout.bytesPerRow[0];
        switch (format) {
        case kCVPixelFormatType_422YpCbCr8:
        case kCVPixelFormatType_422YpCbCr8_yuvs:
            for (size_t x = rect.x0 & ~static_cast<size_t>(1); x < rect.x1; x += 2) {
                unsigned char* pair = line + x * 2;
                const bool uyvy = format == kCVPixelFormatType_422YpCbCr8;
                pair[0] = uyvy ? u : y;
                pair[1] = uyvy ? y : u;
                pair[2] = uyvy ? v : y;
                pair[3] = uyvy ? y : v;
            }
            break;
        case kCVPixelFormatType_32BGRA:
        case kCVPixelFormatType_32ARGB:
            for (size_t x = rect.x0; x < rect.x1; ++x) {
                unsigned char* px = line + x * 4;
                const bool bgra = format == kCVPixelFormatType_32BGRA;
                px[0] = bgra ? rgb[2] : 255;
                px[1] = bgra ? rgb[1] : rgb[0];
                px[2] = bgra ? rgb[0] : rgb[1];
                px[3] = bgra ? 255 : rgb[2];
            }
            break;
        case kCVPixelFormatType_24RGB:
        case kCVPixelFormatType_24BGR:
            for (size_t x = rect.x0; x < rect.x1; ++x) {
                unsigned char* px = line + x * 3;
                const bool rgbOrder = format == kCVPixelFormatType_24RGB;
                px[0] = rgbOrder ? rgb[0] : rgb[2];
                px[1] = rgb[1];
                px[2] = rgbOrder ? rgb[2] : rgb[0];
            }
            break;
        default: // the luma plane of the grey and planar formats
            memset(line + rect.x0, y, rect.x1 - rect.x0);
            break;
        }
    }
    if (layout.planeCount < 2)
        return;
    // Chroma at half the rows for 4:2:0, at every row for '422v'.
    const size_t shiftY = layout.planeHeight[1] < height ? 1 : 0;
    for (size_t row = rect.y0 >> shiftY; row < (rect.y1 + shiftY) >> shiftY; ++row) {
        if (layout.planeCount == 2) {
            unsigned char* line = base + layout.planeOffset[1] + row * layout.bytesPerRow[1];
            for (size_t x = rect.x0 / 2; x < (rect.x1 + 1) / 2; ++x) {
                line[x * 2] = u;
                line[x * 2 + 1] = v;
            }
        } else {
            memset(base + layout.planeOffset[1] + row * layout.bytesPerRow[1] + rect.x0 / 2, u,
                   (rect.x1 + 1) / 2 - rect.x0 / 2);
            memset(base + layout.planeOffset[2] + row * layout.bytesPerRow[2] + rect.x0 / 2, v,
                   (rect.x1 + 1) / 2 - rect.x0 / 2);
        }
    }
}
