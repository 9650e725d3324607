// Decoding a camera's Motion-JPEG frames: an image made with libavcodec's own encoder comes back
// with its pixels; damaged and foreign data give no picture and no crash.
#include "platform/devices/v4l2/mjpegdecoder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace {

// A 64 x 48 JPEG: luma a left-to-right ramp, chroma neutral.
std::vector<uint8_t> EncodeRamp(int width, int height) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (!codec)
        return {};
    AVCodecContext* context = avcodec_alloc_context3(codec);
    context->width = width;
    context->height = height;
    context->pix_fmt = AV_PIX_FMT_YUVJ422P;
    context->time_base = {1, 30};
    context->flags |= AV_CODEC_FLAG_QSCALE;
    context->global_quality = FF_QP2LAMBDA * 2;
    std::vector<uint8_t> jpeg;
    if (avcodec_open2(context, codec, nullptr) == 0) {
        AVFrame* frame = av_frame_alloc();
        frame->width = width;
        frame->height = height;
        frame->format = context->pix_fmt;
        frame->quality = context->global_quality;
        av_frame_get_buffer(frame, 0);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x)
                frame->data[0][y * frame->linesize[0] + x] = uint8_t(x * 255 / (width - 1));
            for (int x = 0; x < width / 2; ++x) {
                frame->data[1][y * frame->linesize[1] + x] = 128;
                frame->data[2][y * frame->linesize[2] + x] = 128;
            }
        }
        AVPacket* packet = av_packet_alloc();
        if (avcodec_send_frame(context, frame) == 0 && avcodec_receive_packet(context, packet) == 0)
            jpeg.assign(packet->data, packet->data + packet->size);
        av_packet_free(&packet);
        av_frame_free(&frame);
    }
    avcodec_free_context(&context);
    return jpeg;
}

TEST(MjpegDecoding, DecodesAnImageWithItsPixels) {
    std::vector<uint8_t> jpeg = EncodeRamp(64, 48);
    ASSERT_FALSE(jpeg.empty());
    MjpegDecoder decoder;
    for (int round = 0; round < 2; ++round) {
        const AVFrame* picture = decoder.decode(jpeg.data(), jpeg.size());
        ASSERT_NE(nullptr, picture);
        EXPECT_EQ(64, picture->width);
        EXPECT_EQ(48, picture->height);
        for (int x : {0, 21, 42, 63})
            EXPECT_NEAR(x * 255 / 63, picture->data[0][20 * picture->linesize[0] + x], 6) << x;
    }
}

TEST(MjpegDecoding, DamagedOrForeignDataGivesNoPicture) {
    MjpegDecoder decoder;
    EXPECT_EQ(nullptr, decoder.decode(nullptr, 100));
    std::vector<uint8_t> noise(5000);
    srand(7);
    for (uint8_t& byte : noise)
        byte = uint8_t(rand());
    EXPECT_EQ(nullptr, decoder.decode(noise.data(), noise.size()));
    std::vector<uint8_t> jpeg = EncodeRamp(64, 48);
    ASSERT_FALSE(jpeg.empty());
    // Cut short, or with its header bytes flipped: whatever comes back, nothing crashes, and a
    // whole image still decodes afterwards.
    decoder.decode(jpeg.data(), jpeg.size() / 3);
    std::vector<uint8_t> flipped = jpeg;
    for (size_t i = 2; i < 200 && i < flipped.size(); i += 7)
        flipped[i] ^= 0x5a;
    decoder.decode(flipped.data(), flipped.size());
    EXPECT_NE(nullptr, decoder.decode(jpeg.data(), jpeg.size()));
}

} // namespace
