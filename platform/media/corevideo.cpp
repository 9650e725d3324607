#include "platform/corevideo.h"

NSString* const kCVPixelBufferPixelFormatTypeKey = NSConstantString("PixelFormatType");
NSString* const kCVPixelBufferWidthKey = NSConstantString("Width");
NSString* const kCVPixelBufferHeightKey = NSConstantString("Height");

namespace {
constexpr size_t kRowAlignment = 64;
// Room after the last row: some of libyuv's vector row functions (seen with AVX-512, with
// 24-bit RGB) store a few bytes past the end of the picture they write.
constexpr size_t kWriteSlack = 64;
} // namespace

CVPixelBuffer::~CVPixelBuffer() {
    if (releaseCallback != nullptr)
        releaseCallback(releaseContext, base);
}

void CVPixelBuffer::dealloc() {
    if (pool != nullptr)
        pool->Recycle(this);
    else
        delete this;
}

CVReturn CVPixelBufferCreate(void*, size_t width, size_t height, OSType pixelFormat, NSDictionary*,
                             CVPixelBufferRef* out) {
    if (out == nullptr)
        return kCVReturnInvalidArgument;
    *out = nullptr;
    if (FindPixelFormat(pixelFormat) == nullptr)
        return kCVReturnInvalidPixelFormat;
    PixelFormatLayout layout;
    if (!GetPixelFormatLayout(pixelFormat, width, height, kRowAlignment, layout))
        return kCVReturnInvalidSize;
    CVPixelBuffer* buffer = new CVPixelBuffer;
    buffer->pixelFormat = CanonicalPixelFormat(pixelFormat);
    buffer->width = width;
    buffer->height = height;
    buffer->layout = layout;
    buffer->colour = DefaultColour(pixelFormat);
    buffer->storage.resize(layout.totalSize + kWriteSlack);
    buffer->base = buffer->storage.data();
    *out = buffer;
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferCreateWithBytes(void*, size_t width, size_t height, OSType pixelFormat,
                                      void* baseAddress, size_t bytesPerRow,
                                      CVPixelBufferReleaseBytesCallback releaseCallback,
                                      void* releaseRefCon, NSDictionary*, CVPixelBufferRef* out) {
    if (out == nullptr || baseAddress == nullptr)
        return kCVReturnInvalidArgument;
    *out = nullptr;
    PixelFormatLayout layout;
    if (FindPixelFormat(pixelFormat) == nullptr)
        return kCVReturnInvalidPixelFormat;
    if (!GetPixelFormatLayout(pixelFormat, width, height, 1, layout))
        return kCVReturnInvalidSize;
    if (bytesPerRow < layout.bytesPerRow[0])
        return kCVReturnInvalidArgument;
    // The first plane's row length sets the others: chroma rows of 4:2:0 formats are half as
    // long (NV12's interleaved CbCr rows as long), as V4L2 and the system lay them out.
    const size_t scale = layout.bytesPerRow[0];
    for (int plane = 0; plane < layout.planeCount; ++plane)
        layout.bytesPerRow[plane] = layout.bytesPerRow[plane] * bytesPerRow / scale;
    size_t offset = 0;
    for (int plane = 0; plane < layout.planeCount; ++plane) {
        layout.planeOffset[plane] = offset;
        offset += layout.bytesPerRow[plane] * layout.planeHeight[plane];
    }
    layout.totalSize = offset;
    CVPixelBuffer* buffer = new CVPixelBuffer;
    buffer->pixelFormat = CanonicalPixelFormat(pixelFormat);
    buffer->width = width;
    buffer->height = height;
    buffer->layout = layout;
    buffer->colour = DefaultColour(pixelFormat);
    buffer->base = static_cast<unsigned char*>(baseAddress);
    buffer->releaseCallback = releaseCallback;
    buffer->releaseContext = releaseRefCon;
    *out = buffer;
    return kCVReturnSuccess;
}

CVPixelBufferRef CVPixelBufferRetain(CVPixelBufferRef buffer) {
    if (buffer != nullptr)
        buffer->retain();
    return buffer;
}

void CVPixelBufferRelease(CVPixelBufferRef buffer) {
    if (buffer != nullptr)
        buffer->release();
}

CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef buffer, CVPixelBufferLockFlags) {
    if (buffer == nullptr)
        return kCVReturnInvalidArgument;
    buffer->lockCount.fetch_add(1, std::memory_order_acquire);
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef buffer, CVPixelBufferLockFlags) {
    if (buffer == nullptr)
        return kCVReturnInvalidArgument;
    buffer->lockCount.fetch_sub(1, std::memory_order_release);
    return kCVReturnSuccess;
}

void* CVPixelBufferGetBaseAddress(CVPixelBufferRef buffer) {
    return buffer != nullptr ? buffer->base : nullptr;
}

size_t CVPixelBufferGetBytesPerRow(CVPixelBufferRef buffer) {
    return buffer != nullptr ? buffer->layout.bytesPerRow[0] : 0;
}

size_t CVPixelBufferGetWidth(CVPixelBufferRef buffer) {
    return buffer != nullptr ? buffer->width : 0;
}

size_t CVPixelBufferGetHeight(CVPixelBufferRef buffer) {
    return buffer != nullptr ? buffer->height : 0;
}

OSType CVPixelBufferGetPixelFormatType(CVPixelBufferRef buffer) {
    return buffer != nullptr ? buffer->pixelFormat : 0;
}

size_t CVPixelBufferGetDataSize(CVPixelBufferRef buffer) {
    return buffer != nullptr ? buffer->layout.totalSize : 0;
}

bool CVPixelBufferIsPlanar(CVPixelBufferRef buffer) {
    return buffer != nullptr && buffer->layout.planeCount > 1;
}

size_t CVPixelBufferGetPlaneCount(CVPixelBufferRef buffer) {
    return CVPixelBufferIsPlanar(buffer) ? static_cast<size_t>(buffer->layout.planeCount) : 0;
}

void* CVPixelBufferGetBaseAddressOfPlane(CVPixelBufferRef buffer, size_t plane) {
    if (buffer == nullptr || plane >= static_cast<size_t>(buffer->layout.planeCount))
        return nullptr;
    return buffer->base + buffer->layout.planeOffset[plane];
}

size_t CVPixelBufferGetBytesPerRowOfPlane(CVPixelBufferRef buffer, size_t plane) {
    if (buffer == nullptr || plane >= static_cast<size_t>(buffer->layout.planeCount))
        return 0;
    return buffer->layout.bytesPerRow[plane];
}

size_t CVPixelBufferGetHeightOfPlane(CVPixelBufferRef buffer, size_t plane) {
    if (buffer == nullptr || plane >= static_cast<size_t>(buffer->layout.planeCount))
        return 0;
    return buffer->layout.planeHeight[plane];
}

CVPixelBufferPool::CVPixelBufferPool(OSType pixelFormat, size_t width, size_t height)
    : format(CanonicalPixelFormat(pixelFormat)), frameWidth(width), frameHeight(height) {}

CVPixelBufferPool::~CVPixelBufferPool() = default;

void CVPixelBufferPool::Invalidate() {
    std::vector<CVPixelBuffer*> idle;
    {
        std::lock_guard<std::mutex> locked(mutex);
        closed = true;
        idle.swap(free);
    }
    for (CVPixelBuffer* buffer : idle) {
        delete buffer;
        release();
    }
}

CVPixelBufferRef CVPixelBufferPool::CreatePixelBuffer() {
    {
        std::lock_guard<std::mutex> locked(mutex);
        if (closed)
            return nullptr;
        if (!free.empty()) {
            CVPixelBuffer* buffer = free.back();
            free.pop_back();
            return buffer;
        }
    }
    CVPixelBufferRef buffer = nullptr;
    if (CVPixelBufferCreate(nullptr, frameWidth, frameHeight, format, nullptr, &buffer) !=
        kCVReturnSuccess)
        return nullptr;
    ++allocated;
    retain(); // a pooled buffer keeps its pool alive until it is finally freed
    buffer->pool = this;
    return buffer;
}

void CVPixelBufferPool::Recycle(CVPixelBuffer* buffer) {
    buffer->Revive();
    {
        std::lock_guard<std::mutex> locked(mutex);
        if (!closed) {
            free.push_back(buffer);
            return;
        }
    }
    delete buffer;
    release();
}
