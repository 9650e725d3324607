// Decodes the Motion-JPEG frames many USB cameras send, with libjpeg-turbo, straight into the
// pixel format the host asked for where it can: 32- and 24-bit RGB and grey directly, the
// Y'CbCr formats from its planar output through libyuv. Webcams often leave out the Huffman
// tables; libjpeg-turbo falls back to the standard ones. libavcodec decodes what libjpeg-turbo
// refuses. The pictures are JFIF: full-range BT.601.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/corevideo.h"

class MjpegDecoder {
public:
    enum class Library { None, TurboJpeg, Libavcodec };

    MjpegDecoder();
    ~MjpegDecoder();
    MjpegDecoder(const MjpegDecoder&) = delete;
    MjpegDecoder& operator=(const MjpegDecoder&) = delete;

    // Decodes one complete JPEG image into a pooled buffer of pixelFormat ('2vuy' when it is
    // 0 or a format the decoder does not write), at the image's size; one reference for the
    // caller. Null when the data is not a whole decodable image: damaged and truncated frames
    // are common on USB, and are dropped (counted), never delivered half-decoded. One thread
    // at a time.
    CVPixelBufferRef Decode(const uint8_t* data, size_t size, OSType pixelFormat);

    // The pixel format Decode delivers for a request of pixelFormat.
    static OSType DeliveredFormat(OSType pixelFormat);
    // Frames dropped as damaged or undecodable so far.
    uint64_t droppedFrames() const { return dropped; }
    // The library that decoded the last frame (None when it was dropped).
    Library lastLibrary() const { return library; }

private:
    CVPixelBufferRef Target(OSType format, size_t width, size_t height);
    CVPixelBufferRef DecodeWithTurboJpeg(const uint8_t* data, size_t size, OSType format,
                                         bool& refused);
    CVPixelBufferRef DecodeWithLibavcodec(const uint8_t* data, size_t size, OSType format);

    void* handle = nullptr;            // libjpeg-turbo's decompressor
    CVPixelBufferPool* pool = nullptr; // of delivered pictures, one format and size
    std::vector<uint8_t> planes;       // the planar output, before libyuv packs it
    struct Fallback;                   // libavcodec and libswscale, made when first needed
    std::unique_ptr<Fallback> fallback;
    uint64_t dropped = 0;
    Library library = Library::None;
};
