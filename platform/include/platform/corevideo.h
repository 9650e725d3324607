// Core Video pixel buffers: a frame's pixels with its format, size and row layout, locked while
// the CPU reads them. A buffer either owns its memory (allocated, or taken from a pool that
// recycles it) or wraps memory that belongs to someone else (a backend's mapped buffer), which
// it hands back through a release callback when its last reference goes.
#pragma once

#include <cstddef>
#include <mutex>
#include <vector>

#include "platform/foundation.h"
#include "platform/pixelformats.h"

typedef int32_t CVReturn;
enum : CVReturn {
    kCVReturnSuccess = 0,
    kCVReturnError = -6660,
    kCVReturnInvalidArgument = -6661,
    kCVReturnAllocationFailed = -6662,
    kCVReturnInvalidPixelFormat = -6680,
    kCVReturnInvalidSize = -6681,
};
typedef uint64_t CVOptionFlags;
typedef uint64_t CVPixelBufferLockFlags;

class CVPixelBufferPool;

class CVPixelBuffer : public NSObject {
public:
    OSType pixelFormat = 0;
    size_t width = 0, height = 0;
    PixelFormatLayout layout;
    unsigned char* base = nullptr; // first byte of the first plane; planes follow in one block
    YCbCrColour colour;            // matrix and range of Y'CbCr pixels, as the producer says
    FieldOrder fieldOrder = FieldOrder::Progressive; // as the producer says
    std::atomic<int> lockCount{0};

protected:
    friend class CVPixelBufferPool;
    friend CVReturn CVPixelBufferCreateWithBytes(void*, size_t, size_t, OSType, void*, size_t,
                                                 void (*)(void*, const void*), void*, NSDictionary*,
                                                 CVPixelBuffer**);
    friend CVReturn CVPixelBufferCreate(void*, size_t, size_t, OSType, NSDictionary*,
                                        CVPixelBuffer**);
    ~CVPixelBuffer() override;
    void dealloc() override;

    std::vector<unsigned char> storage;                    // owned pixels, empty when wrapping
    void (*releaseCallback)(void*, const void*) = nullptr; // for wrapped memory
    void* releaseContext = nullptr;
    CVPixelBufferPool* pool = nullptr; // set while the buffer belongs to a pool (retained)
};
typedef CVPixelBuffer* CVPixelBufferRef;
typedef CVPixelBuffer* CVImageBufferRef;

typedef void (*CVPixelBufferReleaseBytesCallback)(void* releaseRefCon, const void* baseAddress);

// Allocates a buffer of the format and size, rows aligned to 64 bytes; one reference for the
// caller. kCVReturnInvalidPixelFormat or kCVReturnInvalidSize for what the layout table refuses.
CVReturn CVPixelBufferCreate(void* allocator, size_t width, size_t height, OSType pixelFormat,
                             NSDictionary* attributes, CVPixelBufferRef* out);
// Wraps memory without copying: bytesPerRow describes the first plane (later planes follow it
// with the format's own layout, scaled from it). The callback runs with releaseRefCon and the
// base address when the last reference goes.
CVReturn CVPixelBufferCreateWithBytes(void* allocator, size_t width, size_t height,
                                      OSType pixelFormat, void* baseAddress, size_t bytesPerRow,
                                      CVPixelBufferReleaseBytesCallback releaseCallback,
                                      void* releaseRefCon, NSDictionary* attributes,
                                      CVPixelBufferRef* out);

CVPixelBufferRef CVPixelBufferRetain(CVPixelBufferRef buffer);
void CVPixelBufferRelease(CVPixelBufferRef buffer);
// Locking counts readers; it never fails on a valid buffer. Null gives kCVReturnInvalidArgument.
CVReturn CVPixelBufferLockBaseAddress(CVPixelBufferRef buffer, CVPixelBufferLockFlags flags);
CVReturn CVPixelBufferUnlockBaseAddress(CVPixelBufferRef buffer, CVPixelBufferLockFlags flags);
// Queries; 0 or null for a null buffer.
void* CVPixelBufferGetBaseAddress(CVPixelBufferRef buffer);
size_t CVPixelBufferGetBytesPerRow(CVPixelBufferRef buffer);
size_t CVPixelBufferGetWidth(CVPixelBufferRef buffer);
size_t CVPixelBufferGetHeight(CVPixelBufferRef buffer);
OSType CVPixelBufferGetPixelFormatType(CVPixelBufferRef buffer);
size_t CVPixelBufferGetDataSize(CVPixelBufferRef buffer);
bool CVPixelBufferIsPlanar(CVPixelBufferRef buffer);
size_t CVPixelBufferGetPlaneCount(CVPixelBufferRef buffer);
void* CVPixelBufferGetBaseAddressOfPlane(CVPixelBufferRef buffer, size_t plane);
size_t CVPixelBufferGetBytesPerRowOfPlane(CVPixelBufferRef buffer, size_t plane);
size_t CVPixelBufferGetHeightOfPlane(CVPixelBufferRef buffer, size_t plane);

// Pixel-buffer attribute keys.
extern NSString* const kCVPixelBufferPixelFormatTypeKey;
extern NSString* const kCVPixelBufferWidthKey;
extern NSString* const kCVPixelBufferHeightKey;

// Recycles buffers of one format and size: a buffer whose last reference goes returns to the
// pool instead of being freed, so a running capture allocates nothing per frame. Each buffer
// made holds the pool; the owner calls Invalidate before its release, after which buffers are
// freed as they come back. Thread-safe.
class CVPixelBufferPool : public NSObject {
public:
    CVPixelBufferPool(OSType pixelFormat, size_t width, size_t height);
    // A buffer with one reference for the caller, reused when one is free; null when the
    // format or size is invalid.
    CVPixelBufferRef CreatePixelBuffer();
    OSType pixelFormat() const { return format; }
    size_t width() const { return frameWidth; }
    size_t height() const { return frameHeight; }
    // Frees the idle buffers and stops recycling.
    void Invalidate();
    // Buffers made so far, for tests of reuse.
    size_t allocatedCount() const { return allocated.load(); }

protected:
    ~CVPixelBufferPool() override;

private:
    friend class CVPixelBuffer;
    void Recycle(CVPixelBuffer* buffer);
    OSType format;
    size_t frameWidth, frameHeight;
    std::mutex mutex;
    std::vector<CVPixelBuffer*> free;
    bool closed = false;
    std::atomic<size_t> allocated{0};
};
