#include "platform/videoconverter.h"

extern "C" {
#include <libswscale/swscale.h>
}

bool VideoConversionIsIdentity(OSType sourceFormat, size_t sourceWidth, size_t sourceHeight,
                               OSType pixelFormat, size_t width, size_t height) {
    return (pixelFormat == 0 ||
            CanonicalPixelFormat(pixelFormat) == CanonicalPixelFormat(sourceFormat)) &&
           (width == 0 || width == sourceWidth) && (height == 0 || height == sourceHeight);
}

struct VideoConverter::Implementation {
    SwsContext* scaler = nullptr;
    CVPixelBufferPool* pool = nullptr;
    OSType sourceFormat = 0;
    size_t sourceWidth = 0, sourceHeight = 0;

    ~Implementation() { Drop(); }

    void Drop() {
        sws_freeContext(scaler);
        scaler = nullptr;
        if (pool != nullptr) {
            pool->Invalidate();
            pool->release();
            pool = nullptr;
        }
    }

    bool Prepare(CVPixelBufferRef source, OSType format, size_t width, size_t height) {
        if (scaler != nullptr && pool != nullptr && sourceFormat == source->pixelFormat &&
            sourceWidth == source->width && sourceHeight == source->height &&
            pool->pixelFormat() == format && pool->width() == width && pool->height() == height)
            return true;
        Drop();
        const PixelFormatInfo* from = FindPixelFormat(source->pixelFormat);
        const PixelFormatInfo* to = FindPixelFormat(format);
        if (from == nullptr || to == nullptr)
            return false;
        // A format change alone samples chroma by point, which keeps colours exact where
        // edges fall on chroma sites (bilinear chroma interpolation smears them, by up to a
        // third of the range for NV12); scaling filters bilinearly.
        const bool scales = width != source->width || height != source->height;
        const int flags = scales ? SWS_BILINEAR : SWS_POINT;
        scaler =
            sws_getContext(static_cast<int>(source->width), static_cast<int>(source->height),
                           static_cast<AVPixelFormat>(from->ffmpegFormat), static_cast<int>(width),
                           static_cast<int>(height), static_cast<AVPixelFormat>(to->ffmpegFormat),
                           flags, nullptr, nullptr, nullptr);
        if (scaler == nullptr)
            return false;
        pool = new CVPixelBufferPool(format, width, height);
        sourceFormat = source->pixelFormat;
        sourceWidth = source->width;
        sourceHeight = source->height;
        return true;
    }
};

VideoConverter::VideoConverter() : implementation(new Implementation) {}

VideoConverter::~VideoConverter() = default;

CVPixelBufferRef VideoConverter::Convert(CVPixelBufferRef source, OSType pixelFormat, size_t width,
                                         size_t height) {
    if (source == nullptr)
        return nullptr;
    if (VideoConversionIsIdentity(source->pixelFormat, source->width, source->height, pixelFormat,
                                  width, height))
        return CVPixelBufferRetain(source);
    const OSType format =
        pixelFormat != 0 ? CanonicalPixelFormat(pixelFormat) : source->pixelFormat;
    const size_t targetWidth = width != 0 ? width : source->width;
    const size_t targetHeight = height != 0 ? height : source->height;
    PixelFormatLayout check;
    if (!GetPixelFormatLayout(format, targetWidth, targetHeight, 1, check) ||
        !implementation->Prepare(source, format, targetWidth, targetHeight))
        return nullptr;
    CVPixelBufferRef target = implementation->pool->CreatePixelBuffer();
    if (target == nullptr)
        return nullptr;
    const uint8_t* sourcePlanes[4] = {nullptr, nullptr, nullptr, nullptr};
    int sourceStrides[4] = {0, 0, 0, 0};
    for (int plane = 0; plane < source->layout.planeCount; ++plane) {
        sourcePlanes[plane] = source->base + source->layout.planeOffset[plane];
        sourceStrides[plane] = static_cast<int>(source->layout.bytesPerRow[plane]);
    }
    uint8_t* targetPlanes[4] = {nullptr, nullptr, nullptr, nullptr};
    int targetStrides[4] = {0, 0, 0, 0};
    for (int plane = 0; plane < target->layout.planeCount; ++plane) {
        targetPlanes[plane] = target->base + target->layout.planeOffset[plane];
        targetStrides[plane] = static_cast<int>(target->layout.bytesPerRow[plane]);
    }
    sws_scale(implementation->scaler, sourcePlanes, sourceStrides, 0,
              static_cast<int>(source->height), targetPlanes, targetStrides);
    return target;
}

size_t VideoConverter::PooledBufferCount() const {
    return implementation->pool != nullptr ? implementation->pool->allocatedCount() : 0;
}
