// Decodes the Motion-JPEG frames many USB cameras send, with libavcodec. Webcams often leave
// out the Huffman tables; the decoder falls back to the standard ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

class MjpegDecoder {
public:
    MjpegDecoder() = default;
    ~MjpegDecoder();
    MjpegDecoder(const MjpegDecoder&) = delete;
    MjpegDecoder& operator=(const MjpegDecoder&) = delete;

    // Decodes one complete JPEG image. Returns the decoded picture (planar YUV, in the
    // decoder's own memory, valid until the next call or destruction), or null when the data
    // is not a decodable image. Damaged frames are common on USB: the caller drops them and
    // goes on. One thread at a time.
    const AVFrame* decode(const uint8_t* data, size_t size);

private:
    bool ready();

    AVCodecContext* context = nullptr;
    AVFrame* picture = nullptr;
    AVPacket* packet = nullptr;
    std::vector<uint8_t> input; // the frame copied with the padding the parser may read past
};
