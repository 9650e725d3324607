// Still pictures for `tavix capture --snapshot`: a captured frame converted to RGB and written
// as a PNG or JPEG file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A frame as the video callback hands it over, copied.
struct CapturedFrame {
    std::vector<uint8_t> pixels;
    unsigned long pixelFormat = 0; // Core Video four-character code
    unsigned long width = 0, height = 0, bytesPerRow = 0;
};

// Converts a frame in '2vuy', 'yuvs', '420v', 'y420' (BT.601 video range) or a packed RGB
// format (BGRA, ARGB, RGBA, ABGR, 24RG, 24BG) to packed RGB; false for another pixel format or a
// short buffer.
bool ConvertToRGB(const CapturedFrame& frame, std::vector<uint8_t>& rgb);

// Whether ConvertToRGB takes frames of this pixel format (0, the device's choice, is one).
bool ConvertsToRGB(unsigned long pixelFormat);

// Writes 8-bit RGB pixels as a JPEG file (quality 90); false when it cannot be written.
bool WriteJPEG(const std::string& path, const std::vector<uint8_t>& rgb, unsigned long width,
               unsigned long height);

// Writes 8-bit RGB pixels as a PNG file; false with errno set when the file cannot be written.
bool WritePNG(const std::string& path, const std::vector<uint8_t>& rgb, unsigned long width,
              unsigned long height);
