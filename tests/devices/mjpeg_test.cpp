// Decoding a camera's Motion-JPEG frames: colour bars come back with their colours in every
// format the decoder writes, also from frames without Huffman tables; what libjpeg-turbo
// refuses goes through libavcodec; damaged, truncated and foreign data give no picture, are
// counted, and never crash.
#include "platform/devices/v4l2/mjpegdecoder.h"
#include "support/colourbars.h"

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace {

// Eight bars across, 16 pixels apart at least, so bar middles are flat after JPEG's blocks.
const uint8_t* BarAt(int width, int x) {
    return kColourBars[std::min(7, x * 8 / width)];
}

std::vector<uint8_t> EncodeBars(int width, int height, int subsampling) {
    std::vector<uint8_t> rgb(size_t(width) * height * 3);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            std::copy(BarAt(width, x), BarAt(width, x) + 3, &rgb[(size_t(y) * width + x) * 3]);
    tjhandle handle = tjInitCompress();
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    std::vector<uint8_t> result;
    if (tjCompress2(handle, rgb.data(), width, width * 3, height, TJPF_RGB, &jpeg, &size,
                    subsampling, 100, 0) == 0)
        result.assign(jpeg, jpeg + size);
    tjFree(jpeg);
    tjDestroy(handle);
    return result;
}

// The JPEG without its Huffman table segments, as many UVC webcams send it.
std::vector<uint8_t> WithoutHuffmanTables(const std::vector<uint8_t>& jpeg) {
    std::vector<uint8_t> out(jpeg.begin(), jpeg.begin() + 2);
    size_t i = 2;
    while (i + 4 <= jpeg.size() && jpeg[i] == 0xFF && jpeg[i + 1] != 0xDA) {
        const size_t length = size_t(jpeg[i + 2]) << 8 | jpeg[i + 3];
        if (jpeg[i + 1] != 0xC4)
            out.insert(out.end(), jpeg.begin() + long(i), jpeg.begin() + long(i + 2 + length));
        i += 2 + length;
    }
    out.insert(out.end(), jpeg.begin() + long(i), jpeg.end());
    return out;
}

// Largest difference at the middle of each bar between a decoded picture and the bars: R, G,
// B, or the BT.601 Y'CbCr codes of its format's range.
int WorstBarError(CVPixelBufferRef picture) {
    const PicturePlanes planes = PlanesOf(picture);
    const bool ycbcr = FindPixelFormat(picture->pixelFormat)->isYCbCr;
    int worst = 0;
    for (int bar = 0; bar < 8; ++bar) {
        const std::array<double, 3> seen = SampleAt(
            picture->pixelFormat, planes, BarMiddle(picture->width, bar), picture->height / 2);
        const std::array<double, 3> expected =
            ycbcr ? YCbCrOf(kColourBars[bar], {YCbCrMatrix::BT601, picture->colour.fullRange})
                  : std::array<double, 3>{double(kColourBars[bar][0]), double(kColourBars[bar][1]),
                                          double(kColourBars[bar][2])};
        for (int i = 0; i < 3; ++i)
            worst = std::max(worst, int(std::lround(std::abs(seen[i] - expected[i]))));
    }
    return worst;
}

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
};

TEST(MjpegDecoding, BarsComeBackInEveryFormatAndSubsampling) {
    MjpegDecoder decoder;
    for (int subsampling : {TJSAMP_422, TJSAMP_420, TJSAMP_444}) {
        const std::vector<uint8_t> jpeg = EncodeBars(640, 480, subsampling);
        ASSERT_FALSE(jpeg.empty());
        for (OSType format : kFormats) {
            SCOPED_TRACE(testing::Message()
                         << "subsampling " << subsampling << " " << FindPixelFormat(format)->name);
            CVPixelBufferRef picture = decoder.Decode(jpeg.data(), jpeg.size(), format);
            ASSERT_NE(nullptr, picture);
            EXPECT_EQ(MjpegDecoder::Library::TurboJpeg, decoder.lastLibrary());
            EXPECT_EQ(format, picture->pixelFormat);
            EXPECT_EQ(640u, picture->width);
            EXPECT_EQ(480u, picture->height);
            EXPECT_LE(WorstBarError(picture), 3);
            CVPixelBufferRelease(picture);
        }
    }
    EXPECT_EQ(0u, decoder.droppedFrames());
}

TEST(MjpegDecoding, FormatsTheDecoderDoesNotWriteBecome2vuy) {
    EXPECT_EQ(kCVPixelFormatType_422YpCbCr8, MjpegDecoder::DeliveredFormat(0));
    EXPECT_EQ(kCVPixelFormatType_422YpCbCr8, MjpegDecoder::DeliveredFormat(0x3F3F3F3F));
    EXPECT_EQ(kCVPixelFormatType_32ARGB, MjpegDecoder::DeliveredFormat(kPixelFormatARGBText));
    EXPECT_EQ(kCVPixelFormatType_OneComponent8,
              MjpegDecoder::DeliveredFormat(kCVPixelFormatType_OneComponent8));
}

TEST(MjpegDecoding, FramesWithoutHuffmanTablesDecode) {
    const std::vector<uint8_t> jpeg = WithoutHuffmanTables(EncodeBars(1280, 720, TJSAMP_422));
    ASSERT_GT(jpeg.size(), 1000u);
    MjpegDecoder decoder;
    CVPixelBufferRef picture = decoder.Decode(jpeg.data(), jpeg.size(), kCVPixelFormatType_32BGRA);
    ASSERT_NE(nullptr, picture);
    EXPECT_EQ(MjpegDecoder::Library::TurboJpeg, decoder.lastLibrary());
    EXPECT_LE(WorstBarError(picture), 3);
    CVPixelBufferRelease(picture);
}

// A lossless JPEG (libavcodec's own encoder), which libjpeg-turbo does not decode.
TEST(MjpegDecoding, WhatLibjpegTurboRefusesGoesThroughLibavcodec) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_LJPEG);
    if (codec == nullptr)
        GTEST_SKIP() << "no lossless JPEG encoder";
    AVCodecContext* context = avcodec_alloc_context3(codec);
    context->width = 64;
    context->height = 48;
    context->pix_fmt = AV_PIX_FMT_BGR24;
    context->time_base = {1, 30};
    ASSERT_EQ(0, avcodec_open2(context, codec, nullptr));
    AVFrame* frame = av_frame_alloc();
    frame->width = 64;
    frame->height = 48;
    frame->format = AV_PIX_FMT_BGR24;
    av_frame_get_buffer(frame, 0);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) {
            const uint8_t* rgb = BarAt(64, x);
            uint8_t* p = frame->data[0] + y * frame->linesize[0] + x * 3;
            p[0] = rgb[2], p[1] = rgb[1], p[2] = rgb[0];
        }
    AVPacket* packet = av_packet_alloc();
    ASSERT_EQ(0, avcodec_send_frame(context, frame));
    ASSERT_EQ(0, avcodec_receive_packet(context, packet));
    MjpegDecoder decoder;
    CVPixelBufferRef picture =
        decoder.Decode(packet->data, size_t(packet->size), kCVPixelFormatType_32BGRA);
    ASSERT_NE(nullptr, picture);
    EXPECT_EQ(MjpegDecoder::Library::Libavcodec, decoder.lastLibrary());
    EXPECT_LE(WorstBarError(picture), 2);
    CVPixelBufferRelease(picture);
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&context);
}

TEST(MjpegDecoding, DamagedFramesAreDroppedAndCounted) {
    MjpegDecoder decoder;
    const OSType bgra = kCVPixelFormatType_32BGRA;
    EXPECT_EQ(nullptr, decoder.Decode(nullptr, 100, bgra));
    std::vector<uint8_t> noise(5000);
    srand(7);
    for (uint8_t& byte : noise)
        byte = uint8_t(rand());
    EXPECT_EQ(nullptr, decoder.Decode(noise.data(), noise.size(), bgra));
    EXPECT_EQ(2u, decoder.droppedFrames());

    // Cut anywhere, a frame is never delivered half-decoded.
    const std::vector<uint8_t> jpeg = EncodeBars(320, 240, TJSAMP_422);
    ASSERT_FALSE(jpeg.empty());
    uint64_t cuts = 0;
    for (size_t length = 2; length + 2 < jpeg.size(); length += 53, ++cuts)
        for (OSType format : {bgra, OSType(kCVPixelFormatType_422YpCbCr8)})
            EXPECT_EQ(nullptr, decoder.Decode(jpeg.data(), length, format)) << length;
    EXPECT_EQ(2 + 2 * cuts, decoder.droppedFrames());

    // Flipped bytes may still make some picture; nothing crashes, and a whole frame decodes
    // afterwards.
    for (size_t step = 3; step < 40; step += 5) {
        std::vector<uint8_t> flipped = jpeg;
        for (size_t i = 2; i < flipped.size(); i += step)
            flipped[i] ^= 0x5a;
        CVPixelBufferRelease(decoder.Decode(flipped.data(), flipped.size(), bgra));
    }
    CVPixelBufferRef whole = decoder.Decode(jpeg.data(), jpeg.size(), bgra);
    EXPECT_NE(nullptr, whole);
    CVPixelBufferRelease(whole);
}

} // namespace
