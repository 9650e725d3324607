#include "jpegpictures.h"

#include <string>
#include <turbojpeg.h>

const char* const kVirtualJPEGComment = "Tavix Test Camera JPEG";

JPEGPictures::JPEGPictures() : compressor(tjInitCompress()) {}

JPEGPictures::~JPEGPictures() {
    if (compressor != nullptr)
        tjDestroy(compressor);
}

std::vector<uint8_t> JPEGPictures::Compress(CVPixelBufferRef picture) {
    if (compressor == nullptr || picture == nullptr ||
        picture->pixelFormat != kCVPixelFormatType_32BGRA)
        return {};
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    if (tjCompress2(compressor, picture->base, int(picture->width),
                    int(picture->layout.bytesPerRow[0]), int(picture->height), TJPF_BGRA, &jpeg,
                    &size, TJSAMP_422, 85, 0) != 0 ||
        size < 2) {
        tjFree(jpeg);
        return {};
    }
    // A COM segment right after the start-of-image marker: FF FE, a big-endian length that
    // counts itself, then the text.
    const std::string text = kVirtualJPEGComment;
    std::vector<uint8_t> out;
    out.reserve(size + 4 + text.size());
    out.insert(out.end(), {jpeg[0], jpeg[1], 0xFF, 0xFE, uint8_t((text.size() + 2) >> 8),
                           uint8_t(text.size() + 2)});
    out.insert(out.end(), text.begin(), text.end());
    out.insert(out.end(), jpeg + 2, jpeg + size);
    tjFree(jpeg);
    return out;
}
