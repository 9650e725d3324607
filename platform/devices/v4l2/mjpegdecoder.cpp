#include "platform/devices/v4l2/mjpegdecoder.h"

#include <turbojpeg.h>

#include <cstring>

#include "platform/videoconverter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace {

constexpr size_t kLargestSide = 16384;
// Whole and exact, fast: chroma is replicated rather than interpolated (as the converter's
// point sampling), warnings about damaged data stop the decoding, and a progressive image
// with an absurd number of scans is refused rather than decoded for minutes.
constexpr int kFlags = TJFLAG_FASTUPSAMPLE | TJFLAG_STOPONWARNING | TJFLAG_LIMITSCANS;

// The libjpeg-turbo pixel format that writes `format` directly, or -1.
int TurboPixelFormat(OSType format) {
    switch (format) {
    case kCVPixelFormatType_32BGRA:
        return TJPF_BGRA;
    case kCVPixelFormatType_32ARGB:
        return TJPF_ARGB;
    case kCVPixelFormatType_32RGBA:
        return TJPF_RGBA;
    case kCVPixelFormatType_24RGB:
        return TJPF_RGB;
    case kCVPixelFormatType_24BGR:
        return TJPF_BGR;
    case kCVPixelFormatType_OneComponent8:
        return TJPF_GRAY;
    default:
        return -1;
    }
}

// Trailing zeros after the end-of-image marker are padding some cameras add.
bool EndsWithEndOfImage(const uint8_t* data, size_t size) {
    while (size > 0 && data[size - 1] == 0)
        --size;
    return size >= 2 && data[size - 2] == 0xFF && data[size - 1] == 0xD9;
}

} // namespace

// What libjpeg-turbo refuses (a process it does not implement) goes through libavcodec, then
// libswscale to the wanted format.
struct MjpegDecoder::Fallback {
    AVCodecContext* context = nullptr;
    AVFrame* picture = nullptr;
    AVPacket* packet = nullptr;
    SwsContext* scaler = nullptr;
    std::vector<uint8_t> input; // the frame with the padding the decoder may read past

    ~Fallback() {
        sws_freeContext(scaler);
        av_packet_free(&packet);
        av_frame_free(&picture);
        avcodec_free_context(&context);
    }

    bool Open() {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
        if (codec == nullptr)
            return false;
        context = avcodec_alloc_context3(codec);
        picture = av_frame_alloc();
        packet = av_packet_alloc();
        if (context == nullptr || picture == nullptr || packet == nullptr)
            return false;
        // Damage is an error, not something to conceal.
        context->err_recognition = AV_EF_EXPLODE | AV_EF_BITSTREAM | AV_EF_BUFFER;
        context->flags &= ~AV_CODEC_FLAG_OUTPUT_CORRUPT;
        return avcodec_open2(context, codec, nullptr) == 0;
    }
};

MjpegDecoder::MjpegDecoder() : handle(tjInitDecompress()) {}

MjpegDecoder::~MjpegDecoder() {
    if (handle != nullptr)
        tjDestroy(handle);
    if (pool != nullptr) {
        pool->Invalidate();
        pool->release();
    }
}

OSType MjpegDecoder::DeliveredFormat(OSType pixelFormat) {
    const OSType format = CanonicalPixelFormat(pixelFormat);
    const PixelFormatInfo* info = FindPixelFormat(format);
    if (info != nullptr &&
        (TurboPixelFormat(format) >= 0 || (info->isYCbCr && (info->libyuv & kLibyuvWrites))))
        return format;
    return kCVPixelFormatType_422YpCbCr8;
}

CVPixelBufferRef MjpegDecoder::Target(OSType format, size_t width, size_t height) {
    if (pool == nullptr || pool->pixelFormat() != format || pool->width() != width ||
        pool->height() != height) {
        if (pool != nullptr) {
            pool->Invalidate();
            pool->release();
        }
        pool = new CVPixelBufferPool(format, width, height);
    }
    return pool->CreatePixelBuffer();
}

CVPixelBufferRef MjpegDecoder::Decode(const uint8_t* data, size_t size, OSType pixelFormat) {
    library = Library::None;
    CVPixelBufferRef picture = nullptr;
    if (data != nullptr && size >= 4 && size <= (1u << 30) && data[0] == 0xFF && data[1] == 0xD8) {
        const OSType format = DeliveredFormat(pixelFormat);
        bool refused = false;
        picture = DecodeWithTurboJpeg(data, size, format, refused);
        if (picture != nullptr)
            library = Library::TurboJpeg;
        else if (refused && (picture = DecodeWithLibavcodec(data, size, format)) != nullptr)
            library = Library::Libavcodec;
    }
    if (picture == nullptr)
        ++dropped;
    return picture;
}

CVPixelBufferRef MjpegDecoder::DecodeWithTurboJpeg(const uint8_t* data, size_t size, OSType format,
                                                   bool& refused) {
    refused = false;
    int width = 0, height = 0, subsampling = 0, colourspace = 0;
    if (handle == nullptr ||
        tjDecompressHeader3(handle, data, static_cast<unsigned long>(size), &width, &height,
                            &subsampling, &colourspace) != 0) {
        refused = handle == nullptr || tjGetErrorCode(handle) == TJERR_FATAL;
        return nullptr;
    }
    if (width <= 0 || height <= 0 || size_t(width) > kLargestSide || size_t(height) > kLargestSide)
        return nullptr;
    // Y'CbCr targets come from the planar output, through libyuv, when it reads the
    // subsampling; everything else is decoded to 'BGRA' and converted.
    const int shiftX = subsampling == TJSAMP_444 || subsampling == TJSAMP_GRAY ? 0 : 1;
    const int shiftY = subsampling == TJSAMP_420 ? 1 : 0;
    const bool planar =
        TurboPixelFormat(format) < 0 && (subsampling == TJSAMP_444 || subsampling == TJSAMP_422 ||
                                         subsampling == TJSAMP_420 || subsampling == TJSAMP_GRAY);
    const OSType decoded =
        TurboPixelFormat(format) >= 0 || planar ? format : kCVPixelFormatType_32BGRA;
    CVPixelBufferRef target = Target(decoded, size_t(width), size_t(height));
    if (target == nullptr)
        return nullptr;
    int result;
    if (planar) {
        const int components = subsampling == TJSAMP_GRAY ? 1 : 3;
        unsigned char* plane[3] = {nullptr, nullptr, nullptr};
        int strides[3] = {0, 0, 0};
        size_t total = 0;
        for (int c = 0; c < components; ++c)
            total += tjPlaneSizeYUV(c, width, 0, height, subsampling);
        planes.resize(total);
        size_t offset = 0;
        for (int c = 0; c < components; ++c) {
            plane[c] = planes.data() + offset;
            strides[c] = tjPlaneWidth(c, width, subsampling);
            offset += tjPlaneSizeYUV(c, width, 0, height, subsampling);
        }
        result = tjDecompressToYUVPlanes(handle, data, static_cast<unsigned long>(size), plane,
                                         width, strides, height, kFlags);
        const uint8_t* in[3] = {plane[0], plane[1], plane[2]};
        if (result == 0 && !ConvertPlanarYCbCr(in, strides, shiftX, shiftY,
                                               YCbCrColour{YCbCrMatrix::BT601, true}, target)) {
            CVPixelBufferRelease(target);
            return nullptr;
        }
    } else {
        result = tjDecompress2(handle, data, static_cast<unsigned long>(size), target->base, width,
                               static_cast<int>(target->layout.bytesPerRow[0]), height,
                               TurboPixelFormat(decoded), kFlags);
    }
    if (result != 0) {
        // A warning is damaged data; a fatal error may be a process libjpeg-turbo lacks.
        refused = tjGetErrorCode(handle) == TJERR_FATAL;
        CVPixelBufferRelease(target);
        return nullptr;
    }
    if (decoded == format)
        return target;
    VideoConverter converter;
    CVPixelBufferRef converted = converter.Convert(target, format, 0, 0);
    CVPixelBufferRelease(target);
    return converted;
}

CVPixelBufferRef MjpegDecoder::DecodeWithLibavcodec(const uint8_t* data, size_t size,
                                                    OSType format) {
    // libavcodec conceals a missing end; such a frame is incomplete.
    if (!EndsWithEndOfImage(data, size))
        return nullptr;
    if (fallback == nullptr) {
        fallback = std::make_unique<Fallback>();
        if (!fallback->Open()) {
            fallback.reset();
            return nullptr;
        }
    }
    Fallback& f = *fallback;
    f.input.resize(size + AV_INPUT_BUFFER_PADDING_SIZE);
    memcpy(f.input.data(), data, size);
    memset(f.input.data() + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    f.packet->data = f.input.data();
    f.packet->size = static_cast<int>(size);
    av_frame_unref(f.picture);
    if (avcodec_send_packet(f.context, f.packet) < 0 ||
        avcodec_receive_frame(f.context, f.picture) < 0)
        return nullptr;
    const AVFrame* p = f.picture;
    if (p->width <= 0 || p->height <= 0 || size_t(p->width) > kLargestSide ||
        size_t(p->height) > kLargestSide || p->decode_error_flags != 0 ||
        (p->flags & AV_FRAME_FLAG_CORRUPT) != 0)
        return nullptr;
    // A format libswscale does not write is decoded into its stand-in and repacked.
    const PixelFormatInfo* info = SwscaleFormat(format);
    f.scaler = sws_getCachedContext(
        f.scaler, p->width, p->height, static_cast<AVPixelFormat>(p->format), p->width, p->height,
        static_cast<AVPixelFormat>(info->ffmpegFormat),
        SWS_POINT | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr);
    CVPixelBufferRef target = Target(info->pixelFormat, size_t(p->width), size_t(p->height));
    if (f.scaler == nullptr || target == nullptr) {
        CVPixelBufferRelease(target);
        return nullptr;
    }
    const YCbCrColour colour = DefaultColour(info->pixelFormat);
    const int* coefficients = sws_getCoefficients(SWS_CS_ITU601);
    sws_setColorspaceDetails(f.scaler, coefficients, 1, coefficients, colour.fullRange ? 1 : 0, 0,
                             1 << 16, 1 << 16);
    uint8_t* planes[4] = {nullptr, nullptr, nullptr, nullptr};
    int strides[4] = {0, 0, 0, 0};
    for (int plane = 0; plane < target->layout.planeCount; ++plane) {
        planes[plane] = target->base + target->layout.planeOffset[plane];
        strides[plane] = static_cast<int>(target->layout.bytesPerRow[plane]);
    }
    sws_scale(f.scaler, p->data, p->linesize, 0, p->height, planes, strides);
    target->colour = colour;
    if (info->pixelFormat == format)
        return target;
    VideoConverter converter;
    CVPixelBufferRef converted = converter.Convert(target, format, 0, 0);
    CVPixelBufferRelease(target);
    return converted;
}
