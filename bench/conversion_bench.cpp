// Picture conversion at 1280 x 720 and 1920 x 1080, side by side for every pair of formats the
// converter sends through libyuv: the converter itself (pooled target, path chosen by the
// pixel-format table), the bare libyuv call that does the same work into a preallocated
// buffer (the floor), and libswscale as the converter used it for every pair before (point
// sampling, no other flag).
#include <libyuv.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "bench.h"
#include "platform/videoconverter.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace {

const OSType kFormats[] = {
    kCVPixelFormatType_422YpCbCr8,
    kCVPixelFormatType_422YpCbCr8_yuvs,
    kCVPixelFormatType_32BGRA,
    kCVPixelFormatType_32ARGB,
    kCVPixelFormatType_32RGBA,
    kCVPixelFormatType_24RGB,
    kCVPixelFormatType_24BGR,
    kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange,
    kCVPixelFormatType_420YpCbCr8BiPlanarFullRange,
    kCVPixelFormatType_420YpCbCr8Planar,
};

CVPixelBufferRef Filled(OSType format, size_t width, size_t height) {
    CVPixelBufferRef buffer = nullptr;
    CVPixelBufferCreate(nullptr, width, height, format, nullptr, &buffer);
    for (size_t i = 0; i < buffer->layout.totalSize; ++i)
        buffer->base[i] = static_cast<uint8_t>(i * 7 / 5 + i / 4096);
    return buffer;
}

uint8_t* Plane(CVPixelBufferRef b, int plane) {
    return b->base + b->layout.planeOffset[plane];
}
int Stride(CVPixelBufferRef b, int plane) {
    return static_cast<int>(b->layout.bytesPerRow[plane]);
}

// One libyuv call from a format to libyuv's ARGB ('BGRA'), BT.601 video range.
void BareToBGRA(CVPixelBufferRef s, uint8_t* d, int ds) {
    const int w = static_cast<int>(s->width), h = static_cast<int>(s->height);
    switch (s->pixelFormat) {
    case kCVPixelFormatType_422YpCbCr8:
        libyuv::UYVYToARGB(Plane(s, 0), Stride(s, 0), d, ds, w, h);
        break;
    case kCVPixelFormatType_422YpCbCr8_yuvs:
        libyuv::YUY2ToARGB(Plane(s, 0), Stride(s, 0), d, ds, w, h);
        break;
    case kCVPixelFormatType_32BGRA:
        libyuv::ARGBCopy(Plane(s, 0), Stride(s, 0), d, ds, w, h);
        break;
    case kCVPixelFormatType_32ARGB:
        libyuv::BGRAToARGB(Plane(s, 0), Stride(s, 0), d, ds, w, h);
        break;
    case kCVPixelFormatType_32RGBA:
        libyuv::ABGRToARGB(Plane(s, 0), Stride(s, 0), d, ds, w, h);
        break;
    case kCVPixelFormatType_24RGB:
        libyuv::RAWToARGB(Plane(s, 0), Stride(s, 0), d, ds, w, h);
        break;
    case kCVPixelFormatType_24BGR:
        libyuv::RGB24ToARGB(Plane(s, 0), Stride(s, 0), d, ds, w, h);
        break;
    case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange:
        libyuv::NV12ToARGB(Plane(s, 0), Stride(s, 0), Plane(s, 1), Stride(s, 1), d, ds, w, h);
        break;
    case kCVPixelFormatType_420YpCbCr8BiPlanarFullRange:
        libyuv::NV12ToARGBMatrix(Plane(s, 0), Stride(s, 0), Plane(s, 1), Stride(s, 1), d, ds,
                                 &libyuv::kYuvJPEGConstants, w, h);
        break;
    case kCVPixelFormatType_420YpCbCr8Planar:
        libyuv::I420ToARGB(Plane(s, 0), Stride(s, 0), Plane(s, 1), Stride(s, 1), Plane(s, 2),
                           Stride(s, 2), d, ds, w, h);
        break;
    }
}

// One libyuv call from libyuv's ARGB to a format ('420f' takes two: J420, then the chroma
// planes merged).
void BareFromBGRA(const uint8_t* s, int ss, CVPixelBufferRef d, std::vector<uint8_t>& scratch) {
    const int w = static_cast<int>(d->width), h = static_cast<int>(d->height);
    switch (d->pixelFormat) {
    case kCVPixelFormatType_422YpCbCr8:
        libyuv::ARGBToUYVY(s, ss, Plane(d, 0), Stride(d, 0), w, h);
        break;
    case kCVPixelFormatType_422YpCbCr8_yuvs:
        libyuv::ARGBToYUY2(s, ss, Plane(d, 0), Stride(d, 0), w, h);
        break;
    case kCVPixelFormatType_32BGRA:
        libyuv::ARGBCopy(s, ss, Plane(d, 0), Stride(d, 0), w, h);
        break;
    case kCVPixelFormatType_32ARGB:
        libyuv::ARGBToBGRA(s, ss, Plane(d, 0), Stride(d, 0), w, h);
        break;
    case kCVPixelFormatType_32RGBA:
        libyuv::ARGBToABGR(s, ss, Plane(d, 0), Stride(d, 0), w, h);
        break;
    case kCVPixelFormatType_24RGB:
        libyuv::ARGBToRAW(s, ss, Plane(d, 0), Stride(d, 0), w, h);
        break;
    case kCVPixelFormatType_24BGR:
        libyuv::ARGBToRGB24(s, ss, Plane(d, 0), Stride(d, 0), w, h);
        break;
    case kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange:
        libyuv::ARGBToNV12(s, ss, Plane(d, 0), Stride(d, 0), Plane(d, 1), Stride(d, 1), w, h);
        break;
    case kCVPixelFormatType_420YpCbCr8BiPlanarFullRange: {
        const int cw = (w + 1) / 2, ch = (h + 1) / 2;
        scratch.resize(static_cast<size_t>(2 * cw * ch));
        uint8_t* u = scratch.data();
        uint8_t* v = u + cw * ch;
        libyuv::ARGBToJ420(s, ss, Plane(d, 0), Stride(d, 0), u, cw, v, cw, w, h);
        libyuv::MergeUVPlane(u, cw, v, cw, Plane(d, 1), Stride(d, 1), cw, ch);
        break;
    }
    case kCVPixelFormatType_420YpCbCr8Planar:
        libyuv::ARGBToI420(s, ss, Plane(d, 0), Stride(d, 0), Plane(d, 1), Stride(d, 1), Plane(d, 2),
                           Stride(d, 2), w, h);
        break;
    }
}

// The single libyuv call for a pair of Y'CbCr formats of one range, when there is one.
bool BareRepack(CVPixelBufferRef s, CVPixelBufferRef d) {
    static const uint8_t kSwapPairs[16] = {1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14};
    const int w = static_cast<int>(s->width), h = static_cast<int>(s->height);
    const OSType from = s->pixelFormat, to = d->pixelFormat;
    const OSType uyvy = kCVPixelFormatType_422YpCbCr8, yuy2 = kCVPixelFormatType_422YpCbCr8_yuvs;
    const OSType nv12 = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;
    const OSType i420 = kCVPixelFormatType_420YpCbCr8Planar;
    if ((from == uyvy && to == yuy2) || (from == yuy2 && to == uyvy))
        libyuv::ARGBShuffle(Plane(s, 0), Stride(s, 0), Plane(d, 0), Stride(d, 0), kSwapPairs,
                            (w + 1) / 2, h);
    else if ((from == uyvy || from == yuy2) && to == nv12)
        (from == uyvy ? libyuv::UYVYToNV12 : libyuv::YUY2ToNV12)(
            Plane(s, 0), Stride(s, 0), Plane(d, 0), Stride(d, 0), Plane(d, 1), Stride(d, 1), w, h);
    else if ((from == uyvy || from == yuy2) && to == i420)
        (from == uyvy ? libyuv::UYVYToI420 : libyuv::YUY2ToI420)(
            Plane(s, 0), Stride(s, 0), Plane(d, 0), Stride(d, 0), Plane(d, 1), Stride(d, 1),
            Plane(d, 2), Stride(d, 2), w, h);
    else if (from == nv12 && to == i420)
        libyuv::NV12ToI420(Plane(s, 0), Stride(s, 0), Plane(s, 1), Stride(s, 1), Plane(d, 0),
                           Stride(d, 0), Plane(d, 1), Stride(d, 1), Plane(d, 2), Stride(d, 2), w,
                           h);
    else if (from == i420 && (to == uyvy || to == yuy2))
        (to == uyvy ? libyuv::I420ToUYVY : libyuv::I420ToYUY2)(
            Plane(s, 0), Stride(s, 0), Plane(s, 1), Stride(s, 1), Plane(s, 2), Stride(s, 2),
            Plane(d, 0), Stride(d, 0), w, h);
    else if (from == i420 && to == nv12)
        libyuv::I420ToNV12(Plane(s, 0), Stride(s, 0), Plane(s, 1), Stride(s, 1), Plane(s, 2),
                           Stride(s, 2), Plane(d, 0), Stride(d, 0), Plane(d, 1), Stride(d, 1), w,
                           h);
    else
        return false;
    return true;
}

// Milliseconds per call of `work`: the best of several short batches, so another process's
// burst on the shared machine does not count.
template <class Work>
double Milliseconds(Work work) {
    work(); // warm the caches and the pools
    double best = 1e9;
    for (int batch = 0; batch < 5; ++batch) {
        const int calls = 4;
        const double begin = bench::Now();
        for (int i = 0; i < calls; ++i)
            work();
        best = std::min(best, (bench::Now() - begin) * 1e3 / calls);
    }
    return best;
}

void Conversions() {
    std::printf("  %-22s %10s %10s %10s %9s %9s\n", "pair", "library", "libyuv", "libswscale",
                "lib/yuv", "sws/lib");
    for (auto [width, height] : {std::pair<size_t, size_t>{1280, 720}, {1920, 1080}}) {
        double worstFloorRatio = 0, leastGain = 1e9;
        for (OSType from : kFormats)
            for (OSType to : kFormats) {
                if (from == to || ChooseConversionPath(from, width, height, to, width, height) !=
                                      ConversionPath::Libyuv)
                    continue;
                CVPixelBufferRef source = Filled(from, width, height);
                CVPixelBufferRef target = Filled(to, width, height);
                std::vector<uint8_t> bgra(width * height * 4), scratch;
                const int bgraStride = static_cast<int>(width * 4);
                VideoConverter converter;
                const double library = Milliseconds(
                    [&] { CVPixelBufferRelease(converter.Convert(source, to, 0, 0)); });
                const bool sameRange =
                    FindPixelFormat(from)->isYCbCr && FindPixelFormat(to)->isYCbCr &&
                    FindPixelFormat(from)->fullRange == FindPixelFormat(to)->fullRange;
                const double floor = Milliseconds([&] {
                    if (sameRange && BareRepack(source, target))
                        return;
                    if (to == kCVPixelFormatType_32BGRA)
                        BareToBGRA(source, Plane(target, 0), Stride(target, 0));
                    else if (from == kCVPixelFormatType_32BGRA)
                        BareFromBGRA(Plane(source, 0), Stride(source, 0), target, scratch);
                    else {
                        BareToBGRA(source, bgra.data(), bgraStride);
                        BareFromBGRA(bgra.data(), bgraStride, target, scratch);
                    }
                });
                SwsContext* sws =
                    sws_getContext(static_cast<int>(width), static_cast<int>(height),
                                   static_cast<AVPixelFormat>(FindPixelFormat(from)->ffmpegFormat),
                                   static_cast<int>(width), static_cast<int>(height),
                                   static_cast<AVPixelFormat>(FindPixelFormat(to)->ffmpegFormat),
                                   SWS_POINT, nullptr, nullptr, nullptr);
                const double swscale = Milliseconds([&] {
                    const uint8_t* in[4] = {Plane(source, 0), Plane(source, 1), Plane(source, 2),
                                            nullptr};
                    const int inStrides[4] = {Stride(source, 0), Stride(source, 1),
                                              Stride(source, 2), 0};
                    uint8_t* out[4] = {Plane(target, 0), Plane(target, 1), Plane(target, 2),
                                       nullptr};
                    const int outStrides[4] = {Stride(target, 0), Stride(target, 1),
                                               Stride(target, 2), 0};
                    sws_scale(sws, in, inStrides, 0, static_cast<int>(height), out, outStrides);
                });
                sws_freeContext(sws);
                char label[64];
                std::snprintf(label, sizeof label, "%zux%zu %s>%s", width, height,
                              FindPixelFormat(from)->name, FindPixelFormat(to)->name);
                std::printf("  %-22s %7.3f ms %7.3f ms %7.3f ms %8.2fx %8.1fx\n", label, library,
                            floor, swscale, library / floor, swscale / library);
                worstFloorRatio = std::max(worstFloorRatio, library / floor);
                leastGain = std::min(leastGain, swscale / library);
                CVPixelBufferRelease(source);
                CVPixelBufferRelease(target);
            }
        char label[96];
        std::snprintf(label, sizeof label, "%zux%zu worst library time against bare libyuv", width,
                      height);
        bench::Print(label, worstFloorRatio, "x");
        std::snprintf(label, sizeof label, "%zux%zu least gain over libswscale", width, height);
        bench::Print(label, leastGain, "x");
    }
}

bench::Section section("conversion", Conversions);

} // namespace
