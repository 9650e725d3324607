// Decoding a camera's Motion-JPEG frames: whatever the bytes, the decoder ends without a fault,
// and a picture it delivers is whole, of the format and a size it promises. Most inputs are
// edits of a valid frame (cut short, bytes changed, Huffman tables left out), so the fuzzer
// reaches deep into the decoder without a corpus; the rest are taken as they are.
#include <turbojpeg.h>

#include <algorithm>
#include <vector>

#include "fuzz_input.h"
#include "platform/devices/v4l2/mjpegdecoder.h"

namespace {

const OSType kFormats[] = {
    kCVPixelFormatType_32BGRA,
    kCVPixelFormatType_32ARGB,
    kCVPixelFormatType_32RGBA,
    kCVPixelFormatType_24RGB,
    kCVPixelFormatType_24BGR,
    kCVPixelFormatType_422YpCbCr8,
    kCVPixelFormatType_422YpCbCr8_yuvs,
    kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange,
    kCVPixelFormatType_420YpCbCr8BiPlanarFullRange,
    kCVPixelFormatType_420YpCbCr8Planar,
    kCVPixelFormatType_OneComponent8,
    0,
};

// Valid frames to start from, one per subsampling, small enough to decode quickly.
const std::vector<std::vector<uint8_t>>& Seeds() {
    static const std::vector<std::vector<uint8_t>> seeds = [] {
        std::vector<std::vector<uint8_t>> made;
        const int width = 48, height = 32;
        std::vector<uint8_t> rgb(width * height * 3);
        for (size_t i = 0; i < rgb.size(); ++i)
            rgb[i] = static_cast<uint8_t>(i * 37 / 11);
        tjhandle handle = tjInitCompress();
        for (int subsampling : {TJSAMP_422, TJSAMP_420, TJSAMP_444, TJSAMP_GRAY, TJSAMP_440}) {
            unsigned char* jpeg = nullptr;
            unsigned long size = 0;
            if (tjCompress2(handle, rgb.data(), width, width * 3, height, TJPF_RGB, &jpeg, &size,
                            subsampling, 80, 0) == 0)
                made.emplace_back(jpeg, jpeg + size);
            tjFree(jpeg);
        }
        tjDestroy(handle);
        return made;
    }();
    return seeds;
}

// Pictures over four million pixels only cost the fuzzer memory and time.
bool Plausible(const std::vector<uint8_t>& jpeg) {
    tjhandle handle = tjInitDecompress();
    int width = 0, height = 0, subsampling = 0, colourspace = 0;
    const bool read = tjDecompressHeader3(handle, jpeg.data(), jpeg.size(), &width, &height,
                                          &subsampling, &colourspace) == 0;
    tjDestroy(handle);
    return !read || long(width) * height <= 4l << 20;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static MjpegDecoder decoder; // kept, as a stream keeps it, so its pools are reused
    FuzzInput input(data, size);
    const unsigned int choice = input.Number();
    const OSType format = kFormats[choice % (sizeof kFormats / sizeof kFormats[0])];
    std::vector<uint8_t> jpeg;
    if ((choice >> 8) % 4 == 0) {
        jpeg.assign(data + std::min<size_t>(size, 2), data + size);
    } else {
        jpeg = Seeds()[(choice >> 10) % Seeds().size()];
        // Then edits: a position and a byte to put there, until the input runs out; a position
        // past the end cuts the frame there.
        for (unsigned int position = input.Number(), value = input.Number();
             position != 0 || value != 0; position = input.Number(), value = input.Number()) {
            if (position >= jpeg.size())
                jpeg.resize(position % (jpeg.size() + 1));
            else
                jpeg[position] = static_cast<uint8_t>(value);
            if (jpeg.empty())
                break;
        }
    }
    if (!Plausible(jpeg))
        return 0;
    const uint64_t droppedBefore = decoder.droppedFrames();
    CVPixelBufferRef picture = decoder.Decode(jpeg.data(), jpeg.size(), format);
    if (picture == nullptr) {
        FUZZ_CHECK(decoder.droppedFrames() == droppedBefore + 1);
        return 0;
    }
    FUZZ_CHECK(picture->pixelFormat == MjpegDecoder::DeliveredFormat(format));
    FUZZ_CHECK(picture->width > 0 && picture->width <= 16384);
    FUZZ_CHECK(picture->height > 0 && picture->height <= 16384);
    // Every byte of the picture is readable.
    unsigned sum = 0;
    for (size_t i = 0; i < picture->layout.totalSize; ++i)
        sum += picture->base[i];
    FUZZ_CHECK(sum <= 255 * picture->layout.totalSize);
    CVPixelBufferRelease(picture);
    return 0;
}
