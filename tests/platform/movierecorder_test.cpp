#include "platform/movierecorder.h"

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <cstdlib>
#include <gtest/gtest.h>
#include <turbojpeg.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform/devices/virtual/testpattern.h"
#include "platform/videoconverter.h"
#include "support/colourbars.h"
#include "support/ffprobe.h"
#include "support/process.h"
#include "support/tempfolder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace {

class MovieRecorderTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!HaveFFprobe())
            GTEST_SKIP() << "ffprobe is not installed (scripts/install-deps.sh installs it)";
    }
    TempFolder temp{"tavix-recorder"};
    std::string folder = temp.path;
};

MovieVideoSettings Video(int width, int height, double rate) {
    MovieVideoSettings video;
    video.width = width;
    video.height = height;
    video.pixelFormat = AV_PIX_FMT_BGRA;
    video.frameRate = rate;
    return video;
}

MovieAudioSettings FloatStereo48k() {
    MovieAudioSettings audio;
    audio.sampleRate = 48000;
    audio.channels = 2;
    audio.bytesPerSample = 4;
    audio.isFloat = true;
    return audio;
}

// Feeds `seconds` of BGRA pictures and a float stereo sine with capture-clock times starting at
// origin, as a capture session would (sound in 10 ms buffers). The sound can miss half a second
// from `soundGapAt` seconds on, as after a device overrun.
void Feed(MovieRecorder& recorder, const MovieVideoSettings& video, double seconds, double origin,
          bool withAudio, double soundGapAt = -1) {
    std::vector<uint8_t> picture(static_cast<size_t>(video.width) * video.height * 4);
    std::vector<float> sound(480 * 2);
    const int frames = static_cast<int>(std::lround(seconds * video.frameRate));
    int audioBuffers = 0;
    for (int frame = 0; frame < frames; ++frame) {
        const double time = origin + frame / video.frameRate;
        for (size_t i = 0; i < picture.size(); ++i)
            picture[i] = static_cast<uint8_t>(i / 4 + frame * 3);
        const uint8_t* planes[4] = {picture.data(), nullptr, nullptr, nullptr};
        const int strides[4] = {video.width * 4, 0, 0, 0};
        // The encoder thread may lag; wait rather than drop, so counts are exact.
        while (!recorder.AppendVideo(planes, strides, time))
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        while (withAudio && audioBuffers * 0.01 < time - origin + 1 / video.frameRate) {
            for (int i = 0; i < 480; ++i) {
                const float value =
                    0.5f *
                    static_cast<float>(sin(2 * M_PI * 1000 * (audioBuffers * 480 + i) / 48000.0));
                sound[2 * i] = sound[2 * i + 1] = value;
            }
            const void* buffers[1] = {sound.data()};
            const double at = audioBuffers++ * 0.01;
            const bool inGap =
                soundGapAt >= 0 && at > soundGapAt - 0.001 && at < soundGapAt + 0.499;
            if (!inGap) {
                EXPECT_TRUE(recorder.AppendAudio(buffers, 1, 480, origin + at));
            }
        }
    }
}

// When a movie's first picture and each of its sound packets start, in seconds, and the size of
// its pictures.
struct PacketTimes {
    double firstPicture = 1e9;
    int64_t pictureBytes = 0;
    std::vector<double> sound;
};
PacketTimes PacketTimesOf(const std::string& path) {
    PacketTimes times;
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) != 0)
        return times;
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(format, packet) == 0) {
        const AVStream* stream = format->streams[packet->stream_index];
        // AVI stores no presentation times, only decoding times.
        const int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
        const double start = time * av_q2d(stream->time_base);
        const bool timed = time != AV_NOPTS_VALUE;
        if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
            times.pictureBytes += packet->size;
        if (timed && stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
            times.firstPicture = std::min(times.firstPicture, start);
        else if (timed)
            times.sound.push_back(start);
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&format);
    return times;
}

} // namespace

// Two seconds of pictures and sound, the sound missing half a second from the first second on:
// the sound after the gap keeps its time, so both streams end together in every container and
// with every codec chosen.
TEST_F(MovieRecorderTest, ContainerFollowsTheExtensionWithPictureAndSoundInSync) {
    using V = MovieVideoCodec;
    using S = MovieSoundCodec;
    struct Case {
        const char* name;
        const char* format;
        const char* audioCodec;
        MovieEncoding encoding;
        const char* videoCodec; // null: H.264 where libx264 exists
    } cases[] = {{"clip.mov", "mov", "pcm_s16le", {}, nullptr},
                 {"clip.MP4", "mp4", "aac", {}, nullptr},
                 {"clip.avi", "avi", "pcm_s16le", {}, nullptr},
                 {"clip.mkv", "matroska", "pcm_s16le", {}, nullptr},
                 {"ffv1.mkv", "matroska", "aac", {V::FFV1, -1, S::AAC}, "ffv1"},
                 {"ffv1.mov", "mov", "pcm_s16le", {V::FFV1, -1, S::PCM}, "ffv1"},
                 {"mjpeg.mp4", "mp4", "aac", {V::MJPEG, -1, S::Automatic}, "mjpeg"},
                 {"fine.mov", "mov", "aac", {V::H264, 10, S::AAC}, "h264"},
                 {"smallest.mkv", "matroska", "aac", {V::H264, 51, S::AAC}, "h264"}};
    int64_t fineBytes = 0, smallestBytes = 0;
    const MovieVideoSettings video = Video(320, 240, 30);
    const MovieAudioSettings audio = FloatStereo48k();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = folder + "/" + c.name;
        auto recorder = MovieRecorder::Create(path, &video, &audio, c.encoding);
        ASSERT_TRUE(recorder);
        Feed(*recorder, video, 2.0, 1000.25, true, 1.0);
        EXPECT_TRUE(recorder->Finish());
        const MovieRecorderStatistics statistics = recorder->GetStatistics();
        EXPECT_EQ(60u, statistics.videoFramesWritten);
        EXPECT_EQ(0u, statistics.videoFramesDropped);
        EXPECT_FALSE(statistics.failed);
        const ProbedMovie movie = ProbeMovie(path);
        ASSERT_TRUE(movie.readable);
        EXPECT_NE(std::string::npos, movie.formatName.find(c.format)) << movie.formatName;
        ASSERT_EQ(2u, movie.streams.size());
        const ProbedStream* picture = movie.Find("video");
        const ProbedStream* sound = movie.Find("audio");
        ASSERT_TRUE(picture && sound);
        EXPECT_EQ(c.videoCodec != nullptr                        ? c.videoCodec
                  : recorder->GetVideoEncoderName() == "libx264" ? "h264"
                                                                 : "mpeg4",
                  picture->codecName);
        EXPECT_EQ(320, picture->width);
        EXPECT_NEAR(60, picture->frames, 1);
        EXPECT_EQ(c.audioCodec, sound->codecName);
        EXPECT_EQ(48000, sound->sampleRate);
        EXPECT_EQ(2, sound->channels);
        EXPECT_NEAR(2.0, movie.duration, 0.15);
        const PacketTimes times = PacketTimesOf(path);
        if (std::string(c.format) == "avi") {
            // AVI times sound by its samples: the gap is there as silence, so the sound after it
            // is in step and lasts to the pictures' end.
            ASSERT_FALSE(times.sound.empty());
            EXPECT_NEAR(2.0, times.sound.back(), 0.1);
            continue;
        }
        // The sound goes on at 1.5 s of the pictures' time (the containers may move both by the
        // encoder's delay): not right after the sound before the gap, out of step from there on.
        double resumed = -1;
        for (double start : times.sound)
            if (start > times.firstPicture + 1.25 && resumed < 0)
                resumed = start;
        EXPECT_NEAR(times.firstPicture + 1.5, resumed, 0.03) << "the sound after the gap";
        if (c.encoding.quality >= 0)
            (c.encoding.quality == 10 ? fineBytes : smallestBytes) = times.pictureBytes;
    }
    EXPECT_GT(fineBytes, 4 * smallestBytes) << "H.264's rate factor is applied";
}

TEST_F(MovieRecorderTest, SoundOnlyAndOddSampleLayouts) {
    MovieAudioSettings audio;
    audio.sampleRate = 44100;
    audio.channels = 2;
    audio.bytesPerSample = 3;
    audio.isNonInterleaved = true;
    audio.isBigEndian = true;
    const std::string path = folder + "/sound.mkv";
    auto recorder = MovieRecorder::Create(path, nullptr, &audio);
    ASSERT_TRUE(recorder);
    std::vector<uint8_t> left(441 * 3, 0x10), right(441 * 3, 0xF0);
    for (int buffer = 0; buffer < 100; ++buffer) {
        const void* buffers[2] = {left.data(), right.data()};
        EXPECT_TRUE(recorder->AppendAudio(buffers, 2, 441, buffer * 0.01));
    }
    const void* tooFew[1] = {left.data()};
    EXPECT_FALSE(recorder->AppendAudio(tooFew, 1, 441, 1.0));
    EXPECT_TRUE(recorder->Finish());
    EXPECT_EQ(44100u, recorder->GetStatistics().audioFramesWritten);
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable);
    ASSERT_EQ(1u, movie.streams.size());
    EXPECT_NEAR(1.0, movie.duration, 0.05);
}

TEST_F(MovieRecorderTest, BadSettingsAndUnwritablePathsCreateNothing) {
    const MovieVideoSettings video = Video(320, 240, 30);
    EXPECT_FALSE(MovieRecorder::Create(folder + "/missing/folder/x.mov", &video, nullptr));
    // A name that does not say the container: no file rather than one of a kind it does not say.
    for (const char* unsaid : {"/clip", "/clip.weird", "/clip.mov/"})
        EXPECT_FALSE(MovieRecorder::Create(folder + unsaid, &video, nullptr)) << unsaid;
    EXPECT_FALSE(MovieRecorder::Create("", &video, nullptr));
    EXPECT_FALSE(MovieRecorder::Create(folder + "/none.mov", nullptr, nullptr));
    MovieVideoSettings zero = video;
    zero.width = 0;
    EXPECT_FALSE(MovieRecorder::Create(folder + "/zero.mov", &zero, nullptr));
    MovieAudioSettings wide = FloatStereo48k();
    wide.bytesPerSample = 5;
    EXPECT_FALSE(MovieRecorder::Create(folder + "/wide.mov", nullptr, &wide));
    // A codec the container cannot hold is refused with the extensions that can.
    std::string why;
    EXPECT_FALSE(MovieRecorder::Create(folder + "/lossless.mp4", &video, nullptr,
                                       MovieEncoding{MovieVideoCodec::FFV1, -1}, &why));
    EXPECT_EQ("Files ending in .mp4 cannot hold FFV1 pictures; record to .mov, .mkv or .avi.", why);
    const MovieAudioSettings audio = FloatStereo48k();
    EXPECT_FALSE(MovieRecorder::Create(folder + "/pcm.mp4", nullptr, &audio,
                                       MovieEncoding{{}, -1, MovieSoundCodec::PCM}, &why));
    EXPECT_EQ("Files ending in .mp4 cannot hold PCM sound; record to .mov, .mkv or .avi.", why);
    struct stat info {};
    EXPECT_NE(0, stat((folder + "/zero.mov").c_str(), &info));
    // Finishing twice, and appending after the end, are harmless.
    auto recorder = MovieRecorder::Create(folder + "/twice.mov", &video, nullptr);
    ASSERT_TRUE(recorder);
    EXPECT_TRUE(recorder->Finish());
    EXPECT_TRUE(recorder->Finish());
    const uint8_t* planes[4] = {nullptr, nullptr, nullptr, nullptr};
    const int strides[4] = {0, 0, 0, 0};
    EXPECT_FALSE(recorder->AppendVideo(planes, strides, 0));
}

TEST_F(MovieRecorderTest, AProcessKilledWhileRecordingLeavesAPlayableFile) {
    const std::string path = folder + "/killed.mp4";
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const MovieVideoSettings video = Video(320, 240, 30);
        const MovieAudioSettings audio = FloatStereo48k();
        auto recorder = MovieRecorder::Create(path, &video, &audio);
        if (!recorder)
            _exit(1);
        const auto begin = std::chrono::steady_clock::now();
        for (double t = 0;; t += 1 / 30.0) {
            // Real time, so the parent kills it mid-way.
            std::this_thread::sleep_until(begin +
                                          std::chrono::microseconds(static_cast<long>(t * 1e6)));
            Feed(*recorder, video, 1 / 30.0, t, true);
        }
    }
    // Killed once a second of pictures has reached the disk (a fragment is about a second).
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const auto secondOnDisk = [&] {
        const ProbedMovie movie = ProbeMovie(path);
        return movie.Find("video") != nullptr && movie.Find("video")->frames >= 30;
    };
    while (!secondOnDisk() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the recorder child ended by itself";
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable);
    ASSERT_TRUE(movie.Find("video"));
    EXPECT_GE(movie.Find("video")->frames, 30) << "at least a second survives";
}

// The recorder converts each pixel format it is handed to what the encoder takes with the
// picture's colours: the test camera's bars come back from the file, within what H.264 loses;
// and from DV in NTSC's 4:1:1, which libyuv does not write.
TEST_F(MovieRecorderTest, PicturesKeepTheirColoursInEveryInputFormat) {
    struct Encoding {
        size_t width, height;
        bool dv; // a deck's pictures, kept as DV where the container holds DV (not in MP4)
        const char* extension;
    };
    for (Encoding encoding : {Encoding{320, 240, false, ".mkv"}, Encoding{720, 480, true, ".mov"},
                              Encoding{720, 480, true, ".mp4"}})
        for (OSType pixelFormat :
             {kCVPixelFormatType_422YpCbCr8, kCVPixelFormatType_422YpCbCr8_yuvs,
              kCVPixelFormatType_32BGRA, kCVPixelFormatType_24RGB,
              kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, kCVPixelFormatType_420YpCbCr8Planar,
              kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange}) {
            const size_t width = encoding.width, height = encoding.height;
            const PixelFormatInfo* info = FindPixelFormat(pixelFormat);
            SCOPED_TRACE(testing::Message()
                         << info->name << (encoding.dv ? " DV " : " ") << encoding.extension);
            const std::string path = folder + "/colours-" + info->name + encoding.extension;
            MovieVideoSettings video =
                Video(int(width), int(height), encoding.dv ? 30000.0 / 1001 : 30);
            video.pixelFormat = info->ffmpegFormat;
            video.keepAsDV = encoding.dv;
            auto recorder = MovieRecorder::Create(path, &video, nullptr);
            ASSERT_NE(nullptr, recorder);
            CVPixelBufferRef picture = nullptr;
            ASSERT_EQ(kCVReturnSuccess,
                      CVPixelBufferCreate(nullptr, width, height, pixelFormat, nullptr, &picture));
            TestPattern(pixelFormat, width, height).Draw(picture, 0);
            const uint8_t* planes[4] = {nullptr, nullptr, nullptr, nullptr};
            int strides[4] = {0, 0, 0, 0};
            for (int plane = 0; plane < picture->layout.planeCount; ++plane) {
                planes[plane] = picture->base + picture->layout.planeOffset[plane];
                strides[plane] = int(picture->layout.bytesPerRow[plane]);
            }
            for (int frame = 0; frame < 5; ++frame)
                while (!recorder->AppendVideo(planes, strides, frame / 30.0))
                    std::this_thread::sleep_for(std::chrono::milliseconds(2));
            recorder->Finish();
            CVPixelBufferRelease(picture);

            // The first picture, decoded by ffmpeg on its own.
            const RGBImage decoded =
                ReadPPMFrom("ffmpeg -v error -i '" + path +
                            "' -frames:v 1 -f image2pipe -c:v ppm - 2>/dev/null");
            ASSERT_EQ(int(width), decoded.width);
            // The middle of each bar, below the frame counter.
            for (size_t bar = 0; bar < 8; ++bar) {
                const size_t x = (2 * bar + 1) * width / 16, y = height * 5 / 6;
                uint8_t rgb[3];
                TestPattern::Pixel(width, height, 0, x, y, rgb);
                for (int c = 0; c < 3; ++c)
                    EXPECT_NEAR(rgb[c], decoded.At(int(x), int(y))[c], 6) << "bar " << bar;
            }
        }
}

// FFV1 keeps every input picture exactly: the file decodes to the very bytes handed in.
TEST_F(MovieRecorderTest, FFV1KeepsPicturesExactly) {
    const struct {
        OSType pixelFormat;
        const char* rawFormat; // ffmpeg's name for the same layout
    } cases[] = {{kCVPixelFormatType_422YpCbCr8, "uyvy422"},
                 {kCVPixelFormatType_32BGRA, "bgra"},
                 {kCVPixelFormatType_420YpCbCr8Planar, "yuv420p"}};
    const size_t width = 320, height = 240;
    for (const auto& c : cases) {
        const PixelFormatInfo* info = FindPixelFormat(c.pixelFormat);
        SCOPED_TRACE(info->name);
        const std::string path = folder + "/exact-" + info->name + ".mkv";
        MovieVideoSettings video = Video(int(width), int(height), 30);
        video.pixelFormat = info->ffmpegFormat;
        auto recorder =
            MovieRecorder::Create(path, &video, nullptr, MovieEncoding{MovieVideoCodec::FFV1});
        ASSERT_NE(nullptr, recorder);
        CVPixelBufferRef picture = nullptr;
        ASSERT_EQ(kCVReturnSuccess,
                  CVPixelBufferCreate(nullptr, width, height, c.pixelFormat, nullptr, &picture));
        TestPattern(c.pixelFormat, width, height).Draw(picture, 0);
        const uint8_t* planes[4] = {nullptr, nullptr, nullptr, nullptr};
        int strides[4] = {0, 0, 0, 0};
        for (int plane = 0; plane < picture->layout.planeCount; ++plane) {
            planes[plane] = picture->base + picture->layout.planeOffset[plane];
            strides[plane] = int(picture->layout.bytesPerRow[plane]);
        }
        const AVPixelFormat format = static_cast<AVPixelFormat>(info->ffmpegFormat);
        std::string expected(size_t(av_image_get_buffer_size(format, int(width), int(height), 1)),
                             '\0');
        av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(expected.data()), int(expected.size()),
                                planes, strides, format, int(width), int(height), 1);
        ASSERT_TRUE(recorder->AppendVideo(planes, strides, 0));
        EXPECT_TRUE(recorder->Finish());
        CVPixelBufferRelease(picture);
        const std::string decoded = RunCommand("ffmpeg -v error -i '" + path +
                                               "' -f rawvideo -pix_fmt " + c.rawFormat + " -")
                                        .output;
        EXPECT_TRUE(decoded == expected) << decoded.size() << " bytes decoded, not the same";
    }
}

// A Motion-JPEG camera's pictures are stored as they came, byte for byte, one packet each.
TEST_F(MovieRecorderTest, JPEGPicturesAreStoredUnchanged) {
    const std::string path = folder + "/camera.mkv";
    MovieVideoSettings video = Video(64, 48, 30);
    video.storesJPEG = true;
    auto recorder =
        MovieRecorder::Create(path, &video, nullptr, MovieEncoding{MovieVideoCodec::MJPEG});
    ASSERT_NE(nullptr, recorder);
    std::vector<std::string> pictures;
    tjhandle compressor = tjInitCompress();
    for (int frame = 0; frame < 3; ++frame) {
        std::vector<uint8_t> rgb(64 * 48 * 3, uint8_t(60 * frame));
        unsigned char* jpeg = nullptr;
        unsigned long size = 0;
        ASSERT_EQ(0, tjCompress2(compressor, rgb.data(), 64, 64 * 3, 48, TJPF_RGB, &jpeg, &size,
                                 TJSAMP_422, 90, 0));
        pictures.emplace_back(reinterpret_cast<char*>(jpeg), size);
        tjFree(jpeg);
        EXPECT_TRUE(recorder->AppendJPEG(reinterpret_cast<const uint8_t*>(pictures.back().data()),
                                         size, frame / 30.0));
    }
    tjDestroy(compressor);
    const uint8_t* planes[4] = {nullptr, nullptr, nullptr, nullptr};
    const int strides[4] = {0, 0, 0, 0};
    EXPECT_FALSE(recorder->AppendVideo(planes, strides, 0.1)) << "only JPEG pictures are stored";
    EXPECT_TRUE(recorder->Finish());
    EXPECT_EQ(3u, recorder->GetStatistics().videoFramesWritten);

    AVFormatContext* format = nullptr;
    ASSERT_EQ(0, avformat_open_input(&format, path.c_str(), nullptr, nullptr));
    ASSERT_EQ(AV_CODEC_ID_MJPEG, format->streams[0]->codecpar->codec_id);
    std::vector<std::string> stored;
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(format, packet) == 0) {
        stored.emplace_back(reinterpret_cast<char*>(packet->data), size_t(packet->size));
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&format);
    EXPECT_TRUE(stored == pictures) << stored.size() << " packets, not the pictures handed in";
}

// Interlaced pictures are marked with their field order in every container, and progressive
// ones stay progressive, so players deinterlace exactly the pictures that need it.
TEST_F(MovieRecorderTest, InterlacedPicturesAreMarkedWithTheirFieldOrder) {
    struct Case {
        FieldOrder order;
        const char* probed;
    } orders[] = {{FieldOrder::TopFirst, "tt"},
                  {FieldOrder::BottomFirst, "bb"},
                  {FieldOrder::Progressive, "progressive"}};
    for (const char* extension : {"mov", "mp4", "mkv"})
        for (const Case& c : orders) {
            MovieVideoSettings video = Video(320, 240, 25);
            video.fieldOrder = c.order;
            const std::string path = folder + "/fields-" + c.probed + "." + extension;
            SCOPED_TRACE(path);
            auto recorder = MovieRecorder::Create(path, &video, nullptr);
            ASSERT_TRUE(recorder);
            Feed(*recorder, video, 0.4, 5.0, false);
            EXPECT_TRUE(recorder->Finish());
            const ProbedMovie movie = ProbeMovie(path);
            ASSERT_TRUE(movie.readable);
            ASSERT_NE(nullptr, movie.Find("video"));
            EXPECT_EQ(c.probed, movie.Find("video")->fieldOrder);
        }
}
