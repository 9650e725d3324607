// Single-planar and multiplanar capture nodes in one shape. A multiplanar node
// (V4L2_CAP_VIDEO_CAPTURE_MPLANE) describes its format and buffers plane by plane: formats such
// as NV12 or YUYV still fill one memory plane, while NV12M, YUV420M and the like keep each
// plane in a buffer of its own. The camera asks and reads through these helpers whichever API
// its node speaks; the backend joins separate planes into one picture.
#pragma once

#include <linux/videodev2.h>

#include "platform/corevideo.h"
#include "platform/devices/v4l2/v4l2camera.h"

static_assert(kV4L2MaxPlanes == VIDEO_MAX_PLANES, "one plane limit for frames and buffers");

// The buffer type a node captures video with, from its capabilities: single-planar when it
// offers both, multiplanar when it offers only that, 0 when it captures no video.
v4l2_buf_type V4L2CaptureType(uint32_t nodeCapabilities);
inline bool V4L2IsMultiplanar(uint32_t type) {
    return type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
}

// A format request for `type`: pixel format, size and field order.
v4l2_format V4L2FormatRequest(uint32_t type, uint32_t fourcc, uint32_t width, uint32_t height,
                              uint32_t field);
// What the driver answered (G_FMT, S_FMT) as a stream format; the frame interval is left alone.
void V4L2ReadFormat(const v4l2_format& format, V4L2Camera::StreamFormat& into);

// A v4l2_buffer for the node's type with room for every plane (its `m.planes` points into the
// object, so it is neither copied nor moved).
struct V4L2BufferSlot {
    v4l2_buffer buffer{};
    v4l2_plane planes[VIDEO_MAX_PLANES]{};

    V4L2BufferSlot(uint32_t type, unsigned planeCount, uint32_t index = 0);
    V4L2BufferSlot(const V4L2BufferSlot&) = delete;
    V4L2BufferSlot& operator=(const V4L2BufferSlot&) = delete;

    unsigned planeCount() const;
    // Length and mmap offset of a plane's memory (QUERYBUF).
    uint32_t length(unsigned plane) const;
    uint32_t offset(unsigned plane) const;
    // Where a plane's data starts in its memory and how many bytes of it the frame fills
    // (DQBUF), the offset already taken off.
    uint32_t dataOffset(unsigned plane) const;
    uint32_t bytesUsed(unsigned plane) const;
};

// A format whose planes come in separate buffers, and the platform format it is delivered as:
// `order[i]` is the driver's plane that becomes plane i of the picture (YVU420M's Cr plane comes
// before its Cb plane). Null for formats that are not of that kind or have no platform format.
struct V4L2SeparatePlanes {
    uint32_t fourcc;
    OSType pixelFormat;
    unsigned planeCount;
    unsigned order[3];
};
const V4L2SeparatePlanes* V4L2FindSeparatePlanes(uint32_t fourcc);

// Copies a frame of a separate-planes format into one contiguous picture from `pool` (made for
// the format's platform format and the stream's size): one copy of each row. Null when the
// frame is short of what the format says or the pool gives no buffer.
CVPixelBufferRef V4L2JoinPlanes(const V4L2Frame& frame, const V4L2Camera::StreamFormat& format,
                                const V4L2SeparatePlanes& planes, CVPixelBufferPool& pool);
