// Converts and scales pixel buffers with libswscale into buffers from its own pool. Used by one
// capture thread at a time.
#pragma once

#include <memory>

#include "platform/corevideo.h"

class VideoConverter {
public:
    VideoConverter();
    ~VideoConverter();
    VideoConverter(const VideoConverter&) = delete;
    VideoConverter& operator=(const VideoConverter&) = delete;

    // The buffer to deliver for source when the wanted format is pixelFormat (0: the source's)
    // at width x height (0: the source's): the source itself, retained, when it already is
    // that (no pixel is copied); otherwise a converted buffer from the pool. Null when the
    // conversion is impossible (an unknown format or size). The caller releases the result.
    CVPixelBufferRef Convert(CVPixelBufferRef source, OSType pixelFormat, size_t width,
                             size_t height);

    // Buffers the pool has made, for tests of reuse.
    size_t PooledBufferCount() const;

private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation;
};

// True when a frame in `source` format and size needs no conversion to be delivered as
// pixelFormat at width x height (0 meaning "as it is").
bool VideoConversionIsIdentity(OSType sourceFormat, size_t sourceWidth, size_t sourceHeight,
                               OSType pixelFormat, size_t width, size_t height);
