// A virtual camera that hands out each picture as JPEG too, as a Motion-JPEG camera does: the
// JPEG carries a comment naming its maker, so a recording that stores the camera's own JPEGs
// can be told from one that encoded them again.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/corevideo.h"

// The comment every virtual JPEG carries.
extern const char* const kVirtualJPEGComment;

class JPEGPictures {
public:
    JPEGPictures();
    ~JPEGPictures();
    JPEGPictures(const JPEGPictures&) = delete;
    JPEGPictures& operator=(const JPEGPictures&) = delete;
    // The picture (32-bit BGRA) as JPEG with the comment; empty for another pixel format or
    // when compressing fails.
    std::vector<uint8_t> Compress(CVPixelBufferRef picture);

private:
    void* compressor;
};
