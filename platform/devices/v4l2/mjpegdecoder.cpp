#include "platform/devices/v4l2/mjpegdecoder.h"

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
}

MjpegDecoder::~MjpegDecoder() {
    av_packet_free(&packet);
    av_frame_free(&picture);
    avcodec_free_context(&context);
}

bool MjpegDecoder::ready() {
    if (context)
        return true;
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
    if (!codec)
        return false;
    context = avcodec_alloc_context3(codec);
    picture = av_frame_alloc();
    packet = av_packet_alloc();
    if (!context || !picture || !packet || avcodec_open2(context, codec, nullptr) < 0) {
        av_packet_free(&packet);
        av_frame_free(&picture);
        avcodec_free_context(&context);
        return false;
    }
    return true;
}

const AVFrame* MjpegDecoder::decode(const uint8_t* data, size_t size) {
    if (!data || size < 4 || size > (1u << 30) || !ready())
        return nullptr;
    // The decoder may read a little past the end; the camera's buffer gives no such promise.
    input.resize(size + AV_INPUT_BUFFER_PADDING_SIZE);
    memcpy(input.data(), data, size);
    memset(input.data() + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
    packet->data = input.data();
    packet->size = int(size);
    av_frame_unref(picture);
    if (avcodec_send_packet(context, packet) < 0)
        return nullptr;
    if (avcodec_receive_frame(context, picture) < 0)
        return nullptr;
    if (picture->width <= 0 || picture->height <= 0)
        return nullptr;
    return picture;
}
