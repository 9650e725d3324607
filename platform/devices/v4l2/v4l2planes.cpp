#include "platform/devices/v4l2/v4l2planes.h"

#include <algorithm>
#include <cstring>

v4l2_buf_type V4L2CaptureType(uint32_t nodeCapabilities) {
    if (nodeCapabilities & V4L2_CAP_VIDEO_CAPTURE)
        return V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (nodeCapabilities & V4L2_CAP_VIDEO_CAPTURE_MPLANE)
        return V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    return v4l2_buf_type(0);
}

v4l2_format V4L2FormatRequest(uint32_t type, uint32_t fourcc, uint32_t width, uint32_t height,
                              uint32_t field) {
    v4l2_format format{};
    format.type = type;
    if (V4L2IsMultiplanar(type)) {
        format.fmt.pix_mp.pixelformat = fourcc;
        format.fmt.pix_mp.width = width;
        format.fmt.pix_mp.height = height;
        format.fmt.pix_mp.field = field;
    } else {
        format.fmt.pix.pixelformat = fourcc;
        format.fmt.pix.width = width;
        format.fmt.pix.height = height;
        format.fmt.pix.field = field;
    }
    return format;
}

void V4L2ReadFormat(const v4l2_format& format, V4L2Camera::StreamFormat& into) {
    if (V4L2IsMultiplanar(format.type)) {
        const v4l2_pix_format_mplane& pix = format.fmt.pix_mp;
        into.fourcc = pix.pixelformat;
        into.width = pix.width;
        into.height = pix.height;
        into.field = pix.field;
        into.colorspace = pix.colorspace;
        into.ycbcrEncoding = pix.ycbcr_enc;
        into.quantization = pix.quantization;
        into.planeCount = std::clamp<unsigned>(pix.num_planes, 1, VIDEO_MAX_PLANES);
        for (unsigned plane = 0; plane < into.planeCount; ++plane) {
            into.planeBytesPerLine[plane] = pix.plane_fmt[plane].bytesperline;
            into.planeSize[plane] = pix.plane_fmt[plane].sizeimage;
        }
    } else {
        const v4l2_pix_format& pix = format.fmt.pix;
        into.fourcc = pix.pixelformat;
        into.width = pix.width;
        into.height = pix.height;
        into.field = pix.field;
        into.colorspace = pix.colorspace;
        into.ycbcrEncoding = pix.ycbcr_enc;
        into.quantization = pix.quantization;
        into.planeCount = 1;
        into.planeBytesPerLine[0] = pix.bytesperline;
        into.planeSize[0] = pix.sizeimage;
    }
    into.bytesPerLine = into.planeBytesPerLine[0];
    into.imageSize = 0;
    for (unsigned plane = 0; plane < into.planeCount; ++plane)
        into.imageSize += into.planeSize[plane];
}

V4L2BufferSlot::V4L2BufferSlot(uint32_t type, unsigned planeCount, uint32_t index) {
    buffer.type = type;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = index;
    if (V4L2IsMultiplanar(type)) {
        buffer.m.planes = planes;
        buffer.length = std::min<unsigned>(planeCount, VIDEO_MAX_PLANES);
    }
}

unsigned V4L2BufferSlot::planeCount() const {
    return V4L2IsMultiplanar(buffer.type) ? std::min<unsigned>(buffer.length, VIDEO_MAX_PLANES) : 1;
}

uint32_t V4L2BufferSlot::length(unsigned plane) const {
    return V4L2IsMultiplanar(buffer.type) ? planes[plane].length : buffer.length;
}

uint32_t V4L2BufferSlot::offset(unsigned plane) const {
    return V4L2IsMultiplanar(buffer.type) ? planes[plane].m.mem_offset : buffer.m.offset;
}

uint32_t V4L2BufferSlot::dataOffset(unsigned plane) const {
    if (!V4L2IsMultiplanar(buffer.type))
        return 0;
    const v4l2_plane& p = planes[plane];
    return p.data_offset < p.bytesused ? p.data_offset : 0;
}

uint32_t V4L2BufferSlot::bytesUsed(unsigned plane) const {
    if (!V4L2IsMultiplanar(buffer.type))
        return buffer.bytesused;
    return planes[plane].bytesused - dataOffset(plane);
}

namespace {

// The separate-planes formats with a platform format: 4:2:0 as '420v' (a Y plane and an
// interleaved CbCr plane) or 'y420' (Y, Cb and Cr planes), 4:2:2 as '422v' (as '420v' with
// chroma on every row).
const V4L2SeparatePlanes kSeparatePlanes[] = {
    {V4L2_PIX_FMT_NV12M, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, 2, {0, 1, 0}},
    {V4L2_PIX_FMT_NV16M, kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange, 2, {0, 1, 0}},
    {V4L2_PIX_FMT_YUV420M, kCVPixelFormatType_420YpCbCr8Planar, 3, {0, 1, 2}},
    {V4L2_PIX_FMT_YVU420M, kCVPixelFormatType_420YpCbCr8Planar, 3, {0, 2, 1}},
};

} // namespace

const V4L2SeparatePlanes* V4L2FindSeparatePlanes(uint32_t fourcc) {
    for (const V4L2SeparatePlanes& entry : kSeparatePlanes)
        if (entry.fourcc == fourcc)
            return &entry;
    return nullptr;
}

CVPixelBufferRef V4L2JoinPlanes(const V4L2Frame& frame, const V4L2Camera::StreamFormat& format,
                                const V4L2SeparatePlanes& planes, CVPixelBufferPool& pool) {
    if (frame.planeCount < planes.planeCount || format.planeCount < planes.planeCount)
        return nullptr;
    PixelFormatLayout layout;
    if (!GetPixelFormatLayout(planes.pixelFormat, format.width, format.height, 1, layout) ||
        layout.planeCount != static_cast<int>(planes.planeCount))
        return nullptr;
    // Every source plane must hold its rows: at least a tightly packed row each, all present.
    for (unsigned plane = 0; plane < planes.planeCount; ++plane) {
        const unsigned source = planes.order[plane];
        const size_t rowBytes = layout.bytesPerRow[plane];
        const size_t stride = format.planeBytesPerLine[source];
        const size_t rows = layout.planeHeight[plane];
        if (stride < rowBytes || frame.planes[source].data == nullptr ||
            frame.planes[source].bytesUsed < stride * (rows - 1) + rowBytes)
            return nullptr;
    }
    CVPixelBufferRef picture = pool.CreatePixelBuffer();
    if (picture == nullptr)
        return nullptr;
    for (unsigned plane = 0; plane < planes.planeCount; ++plane) {
        const unsigned source = planes.order[plane];
        const uint8_t* from = frame.planes[source].data;
        const size_t stride = format.planeBytesPerLine[source];
        uint8_t* to = picture->base + picture->layout.planeOffset[plane];
        const size_t rowBytes = layout.bytesPerRow[plane];
        for (size_t row = 0; row < layout.planeHeight[plane]; ++row)
            memcpy(to + row * picture->layout.bytesPerRow[plane], from + row * stride, rowBytes);
    }
    return picture;
}
