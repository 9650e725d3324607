// Recording '2vuy' at 1280 x 720 and 1920 x 1080, 30 fps, with 48 kHz stereo sound: how fast
// the recorder encodes against real time (frames per second), and what share of one core it
// needs to record in real time. Two pictures: the test camera's (flat bars, easy to encode),
// and a camera-like one (moving gradients with sensor grain, which costs the encoder more).
// The "recording-codecs" section compares the codecs a recording can choose at 1280 x 720.
#include <cmath>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include "bench.h"
#include "platform/devices/virtual/testpattern.h"
#include "platform/movierecorder.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace {

// A moving gradient with grain in every pixel, as a real sensor gives.
void DrawGrainy(CVPixelBufferRef picture, size_t frame) {
    uint32_t noise = 12345 + uint32_t(frame) * 7919;
    for (size_t y = 0; y < picture->height; ++y) {
        uint8_t* row = picture->base + y * picture->layout.bytesPerRow[0];
        for (size_t x = 0; x < picture->width; x += 2) {
            noise = noise * 1664525 + 1013904223;
            const int grain = int(noise >> 29) - 4;
            row[x * 2] = uint8_t(96 + (x + frame * 4) % 64);
            row[x * 2 + 1] = uint8_t(16 + (x / 8 + y / 4 + frame * 3) % 200 + grain);
            row[x * 2 + 2] = uint8_t(96 + (y + frame * 2) % 64);
            row[x * 2 + 3] = uint8_t(16 + (x / 8 + y / 4 + frame * 3) % 200 - grain);
        }
    }
}

void Record(int width, int height, bool grainy, const MovieEncoding& encoding = {},
            const char* codec = nullptr) {
    char folder[] = "/tmp/tavix-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return;
    const std::string path = std::string(folder) + "/bench.mov";
    MovieVideoSettings video;
    video.width = width;
    video.height = height;
    video.pixelFormat = AV_PIX_FMT_UYVY422; // what the test camera delivers
    video.frameRate = 30;
    MovieAudioSettings audio;
    audio.sampleRate = 48000;
    audio.channels = 2;
    audio.bytesPerSample = 4;
    audio.isFloat = true;
    auto recorder = MovieRecorder::Create(path, &video, &audio, encoding);
    if (!recorder) {
        printf("  cannot create %s\n", path.c_str());
        return;
    }
    // A second of the test camera's frames, drawn beforehand: the moving bar and the counter
    // change in every one.
    const int frames = 300; // ten seconds
    TestPattern pattern(kCVPixelFormatType_422YpCbCr8, size_t(width), size_t(height));
    std::vector<CVPixelBufferRef> pictures(30);
    for (size_t i = 0; i < pictures.size(); ++i) {
        CVPixelBufferCreate(nullptr, size_t(width), size_t(height), kCVPixelFormatType_422YpCbCr8,
                            nullptr, &pictures[i]);
        if (grainy)
            DrawGrainy(pictures[i], i);
        else
            pattern.Draw(pictures[i], i);
    }
    std::vector<float> sound(1600 * 2);
    const double cpuBefore = bench::ProcessCpuSeconds();
    const double begin = bench::Now();
    for (int frame = 0; frame < frames; ++frame) {
        for (int i = 0; i < 1600; ++i)
            sound[2 * i] = sound[2 * i + 1] =
                static_cast<float>(0.3 * sin(2 * M_PI * 1000 * (frame * 1600 + i) / 48000.0));
        CVPixelBufferRef picture = pictures[size_t(frame) % pictures.size()];
        const uint8_t* planes[4] = {picture->base, nullptr, nullptr, nullptr};
        const int strides[4] = {static_cast<int>(picture->layout.bytesPerRow[0]), 0, 0, 0};
        while (!recorder->AppendVideo(planes, strides, frame / 30.0))
            usleep(1000); // the encoder is behind: wait, so every frame is encoded
        const void* buffers[1] = {sound.data()};
        recorder->AppendAudio(buffers, 1, 1600, frame / 30.0);
    }
    recorder->Finish();
    const double seconds = bench::Now() - begin;
    const double cpu = bench::ProcessCpuSeconds() - cpuBefore;
    const double media = frames / 30.0;
    std::string kind = grainy ? "camera-like" : "test camera";
    if (codec != nullptr)
        kind = std::string(codec) + ", " + kind;
    char label[128];
    std::snprintf(label, sizeof label, "%dx%d 30 fps %s: frames encoded per second", width, height,
                  kind.c_str());
    bench::Print(label, frames / seconds, "frames/s");
    std::snprintf(label, sizeof label, "%dx%d 30 fps %s: share of one core in real time", width,
                  height, kind.c_str());
    bench::Print(label, 100 * cpu / media, "%");
    std::snprintf(label, sizeof label, "%dx%d 30 fps %s: file size for 10 s", width, height,
                  kind.c_str());
    bench::Print(label, recorder->GetStatistics().bytesWritten / 1e6, "MB");
    for (CVPixelBufferRef picture : pictures)
        CVPixelBufferRelease(picture);
    unlink(path.c_str());
    rmdir(folder);
}

void RecordingSpeed() {
    for (bool grainy : {false, true}) {
        Record(1280, 720, grainy);
        Record(1920, 1080, grainy);
    }
}

// The same ten seconds at 720p30 with each video codec and AAC sound; the share of one core
// includes the sound and the conversion into what the encoder takes.
void CodecComparison() {
    const struct {
        const char* name;
        MovieEncoding encoding;
    } codecs[] = {
        {"H.264 (CRF 23)", {MovieVideoCodec::H264, -1, MovieSoundCodec::AAC}},
        {"H.264 (CRF 18)", {MovieVideoCodec::H264, 18, MovieSoundCodec::AAC}},
        {"FFV1", {MovieVideoCodec::FFV1, -1, MovieSoundCodec::AAC}},
        {"Motion-JPEG", {MovieVideoCodec::MJPEG, -1, MovieSoundCodec::AAC}},
    };
    for (bool grainy : {false, true})
        for (const auto& codec : codecs)
            Record(1280, 720, grainy, codec.encoding, codec.name);
}

bench::Section section("recording", &RecordingSpeed);
bench::Section codecSection("recording-codecs", &CodecComparison);

} // namespace
