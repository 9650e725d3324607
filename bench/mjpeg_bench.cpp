// Motion-JPEG frames as a webcam sends them (4:2:2, quality 85, a picture with fine detail) at
// 1280 x 720 and 1920 x 1080, decoded into 'BGRA' and '2vuy': through the library's decoder
// (libjpeg-turbo straight into the format, or its planar output packed by libyuv) against
// the path it replaced, libavcodec's decoder, then libswscale to '2vuy', then libswscale again
// to what the host asked for.
#include <turbojpeg.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "bench.h"
#include "platform/devices/v4l2/mjpegdecoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

namespace {

std::vector<uint8_t> CameraFrame(int width, int height) {
    std::vector<uint8_t> rgb(size_t(width) * height * 3);
    uint32_t noise = 12345;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            noise = noise * 1664525 + 1013904223;
            const int grain = int(noise >> 28) - 8;
            uint8_t* p = &rgb[(size_t(y) * width + x) * 3];
            p[0] = uint8_t(std::clamp(x * 255 / width + grain, 0, 255));
            p[1] = uint8_t(std::clamp(y * 255 / height + grain, 0, 255));
            p[2] = uint8_t(std::clamp(((x / 40 + y / 40) % 2) * 160 + 40 + grain, 0, 255));
        }
    tjhandle handle = tjInitCompress();
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    tjCompress2(handle, rgb.data(), width, width * 3, height, TJPF_RGB, &jpeg, &size, TJSAMP_422,
                85, 0);
    std::vector<uint8_t> frame(jpeg, jpeg + size);
    tjFree(jpeg);
    tjDestroy(handle);
    return frame;
}

template <class Work>
double Milliseconds(Work work) {
    work();
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

// The replaced path: libavcodec, libswscale to '2vuy', and for 'BGRA' libswscale once more.
struct OldPath {
    AVCodecContext* context = nullptr;
    AVFrame* picture = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    SwsContext* toUYVY = nullptr;
    SwsContext* toBGRA = nullptr;
    std::vector<uint8_t> input, uyvy, bgra;

    OldPath() {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
        context = avcodec_alloc_context3(codec);
        avcodec_open2(context, codec, nullptr);
    }
    ~OldPath() {
        sws_freeContext(toUYVY);
        sws_freeContext(toBGRA);
        av_packet_free(&packet);
        av_frame_free(&picture);
        avcodec_free_context(&context);
    }
    void Decode(const std::vector<uint8_t>& jpeg, bool wantBGRA) {
        input.assign(jpeg.begin(), jpeg.end());
        input.resize(jpeg.size() + AV_INPUT_BUFFER_PADDING_SIZE);
        packet->data = input.data();
        packet->size = int(jpeg.size());
        av_frame_unref(picture);
        avcodec_send_packet(context, packet);
        avcodec_receive_frame(context, picture);
        const int w = picture->width, h = picture->height;
        toUYVY = sws_getCachedContext(toUYVY, w, h, AVPixelFormat(picture->format), w, h,
                                      AV_PIX_FMT_UYVY422, SWS_POINT, nullptr, nullptr, nullptr);
        uyvy.resize(size_t(w) * h * 2);
        uint8_t* uyvyPlanes[4] = {uyvy.data(), nullptr, nullptr, nullptr};
        int uyvyStrides[4] = {w * 2, 0, 0, 0};
        sws_scale(toUYVY, picture->data, picture->linesize, 0, h, uyvyPlanes, uyvyStrides);
        if (!wantBGRA)
            return;
        toBGRA = sws_getCachedContext(toBGRA, w, h, AV_PIX_FMT_UYVY422, w, h, AV_PIX_FMT_BGRA,
                                      SWS_POINT, nullptr, nullptr, nullptr);
        bgra.resize(size_t(w) * h * 4);
        uint8_t* bgraPlanes[4] = {bgra.data(), nullptr, nullptr, nullptr};
        int bgraStrides[4] = {w * 4, 0, 0, 0};
        const uint8_t* in[4] = {uyvy.data(), nullptr, nullptr, nullptr};
        sws_scale(toBGRA, in, uyvyStrides, 0, h, bgraPlanes, bgraStrides);
    }
};

void MotionJpeg() {
    for (auto [width, height] : {std::pair<int, int>{1280, 720}, {1920, 1080}}) {
        const std::vector<uint8_t> jpeg = CameraFrame(width, height);
        std::printf("  %dx%d frame: %zu KB\n", width, height, jpeg.size() / 1024);
        for (OSType format : {kCVPixelFormatType_32BGRA, kCVPixelFormatType_422YpCbCr8}) {
            MjpegDecoder decoder;
            const double library = Milliseconds(
                [&] { CVPixelBufferRelease(decoder.Decode(jpeg.data(), jpeg.size(), format)); });
            OldPath old;
            const bool bgra = format == kCVPixelFormatType_32BGRA;
            const double replaced = Milliseconds([&] { old.Decode(jpeg, bgra); });
            char label[96];
            std::snprintf(label, sizeof label, "%dx%d to %s: library", width, height,
                          FindPixelFormat(format)->name);
            bench::Print(label, library, "ms");
            std::snprintf(label, sizeof label, "%dx%d to %s: libavcodec + libswscale", width,
                          height, FindPixelFormat(format)->name);
            bench::Print(label, replaced, "ms");
            std::snprintf(label, sizeof label, "%dx%d to %s: library time against it", width,
                          height, FindPixelFormat(format)->name);
            bench::Print(label, library / replaced, "x");
        }
    }
}

bench::Section section("mjpeg", MotionJpeg);

} // namespace
