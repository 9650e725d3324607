// Recording 1280 x 720 at 30 fps with 48 kHz stereo sound: how much faster than real time the
// recorder encodes, and what share of one core it needs for real-time recording.
#include <cmath>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include "bench.h"
#include "platform/movierecorder.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

namespace {

void RecordingSpeed() {
    char folder[] = "/tmp/tavix-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return;
    const std::string path = std::string(folder) + "/bench.mov";
    MovieVideoSettings video;
    video.width = 1280;
    video.height = 720;
    video.pixelFormat = AV_PIX_FMT_UYVY422; // what the test camera delivers
    video.frameRate = 30;
    MovieAudioSettings audio;
    audio.sampleRate = 48000;
    audio.channels = 2;
    audio.bytesPerSample = 4;
    audio.isFloat = true;
    auto recorder = MovieRecorder::Create(path, &video, &audio);
    if (!recorder) {
        printf("  cannot create %s\n", path.c_str());
        return;
    }
    // A moving picture, so the encoder has real work.
    std::vector<uint8_t> picture(1280 * 720 * 2);
    std::vector<float> sound(1600 * 2);
    const int frames = 300; // ten seconds
    const double cpuBefore = bench::ProcessCpuSeconds();
    const double begin = bench::Now();
    for (int frame = 0; frame < frames; ++frame) {
        for (size_t i = 0; i < picture.size(); ++i)
            picture[i] = static_cast<uint8_t>((i % 2560) / 10 + frame * 4 + (i / 2560) / 8);
        for (int i = 0; i < 1600; ++i)
            sound[2 * i] = sound[2 * i + 1] =
                static_cast<float>(0.3 * sin(2 * M_PI * 1000 * (frame * 1600 + i) / 48000.0));
        const uint8_t* planes[4] = {picture.data(), nullptr, nullptr, nullptr};
        const int strides[4] = {1280 * 2, 0, 0, 0};
        while (!recorder->AppendVideo(planes, strides, frame / 30.0))
            usleep(1000); // the encoder is behind: wait, so every frame is encoded
        const void* buffers[1] = {sound.data()};
        recorder->AppendAudio(buffers, 1, 1600, frame / 30.0);
    }
    recorder->Finish();
    const double seconds = bench::Now() - begin;
    const double cpu = bench::ProcessCpuSeconds() - cpuBefore;
    const double media = frames / 30.0;
    printf("  video encoder: %s\n", recorder->GetVideoEncoderName().c_str());
    bench::Print("1280x720 30 fps + sound: speed against real time", media / seconds, "x");
    bench::Print("1280x720 30 fps + sound: share of one core in real time", 100 * cpu / media, "%");
    bench::Print("file size for 10 s", recorder->GetStatistics().bytesWritten / 1e6, "MB");
    unlink(path.c_str());
    rmdir(folder);
}

bench::Section section("recording", &RecordingSpeed);

} // namespace
