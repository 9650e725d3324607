// Cameras and sound sources offered by a PipeWire daemon, as a host sees them through the C
// interface and as the tavix command sees them: a private daemon (the lab) with the test
// source's camera of colour bars and microphone of a 1000 Hz tone.
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <set>
#include <tuple>
#include <vector>

#include "platform/coreaudio.h"
#include "support/colourbars.h"
#include "support/devicechanges.h"
#include "support/ffprobe.h"
#include "support/pipewirelab.h"
#include "support/process.h"
#include "support/tavix_helpers.h"
#include "support/tempfolder.h"
#include "support/tone.h"

namespace {

const unsigned kYuvs = kCVPixelFormatType_422YpCbCr8_yuvs, k2vuy = kCVPixelFormatType_422YpCbCr8,
               kBGRA = kCVPixelFormatType_32BGRA;

PipeWireLab* lab = nullptr;

template <class T>
long Data(T& what) {
    return reinterpret_cast<long>(&what);
}

// The latest picture a video callback received, with its format.
struct Picture {
    std::mutex mutex;
    std::vector<uint8_t> bytes;
    unsigned long format = 0, width = 0, height = 0, bytesPerRow = 0;
    std::atomic<int> frames{0};
};

void KeepPicture(const unsigned char* pixels, unsigned long format, unsigned long width,
                 unsigned long height, unsigned long bytesPerRow, const SMPTETime*, long data) {
    Picture& picture = *reinterpret_cast<Picture*>(data);
    std::lock_guard<std::mutex> hold(picture.mutex);
    picture.bytes.assign(pixels, pixels + bytesPerRow * height);
    std::tie(picture.format, picture.width, picture.height, picture.bytesPerRow) =
        std::tie(format, width, height, bytesPerRow);
    ++picture.frames;
}

// What is wrong with the bars of the picture (empty when every bar has its colour).
std::string WrongBars(Picture& picture) {
    std::lock_guard<std::mutex> hold(picture.mutex);
    PicturePlanes planes;
    planes.data[0] = picture.bytes.data();
    planes.bytesPerRow[0] = picture.bytesPerRow;
    std::string wrong;
    for (int bar = 0; bar < 8; ++bar) {
        const std::array<double, 3> seen = SampleAt(
            OSType(picture.format), planes, BarMiddle(picture.width, bar), picture.height / 2);
        const std::array<double, 3> meant =
            picture.format == kBGRA
                ? std::array<double, 3>{double(kColourBars[bar][0]), double(kColourBars[bar][1]),
                                        double(kColourBars[bar][2])}
                : YCbCrOf(kColourBars[bar], YCbCrColour{});
        for (int i = 0; i < 3; ++i)
            if (std::abs(seen[i] - meant[i]) > 6)
                wrong += " bar " + std::to_string(bar) + " component " + std::to_string(i) + ": " +
                         std::to_string(seen[i]) + " not " + std::to_string(meant[i]);
    }
    return wrong;
}

struct Sound {
    std::mutex mutex;
    std::vector<std::vector<double>> channels{2};
    unsigned long rate = 0, channelCount = 0;
};

void KeepSound(const unsigned char* samples, unsigned flags, unsigned long rate,
               unsigned long channelCount, unsigned long bytesPerSample, unsigned long frames,
               long data) {
    Sound& sound = *reinterpret_cast<Sound*>(data);
    std::lock_guard<std::mutex> hold(sound.mutex);
    sound.rate = rate;
    sound.channelCount = channelCount;
    if (channelCount == sound.channels.size())
        AppendDecodedSound(samples, flags, bytesPerSample, frames, sound.channels);
}

size_t SoundFrames(Sound& sound) {
    std::lock_guard<std::mutex> hold(sound.mutex);
    return sound.channels[0].size();
}

class PipeWireTest : public ::testing::Test {
protected:
    // One lab for the program: the daemons' environment must be set before the library first
    // lists devices, and the library keeps its connection for the process.
    static void SetUpTestSuite() {
        if (PipeWireLab::SkipReason().empty() && lab == nullptr)
            lab = new PipeWireLab;
    }
    static void TearDownTestSuite() {
        delete lab;
        lab = nullptr;
    }
    void SetUp() override {
        if (!PipeWireLab::SkipReason().empty())
            GTEST_SKIP() << PipeWireLab::SkipReason();
        ASSERT_TRUE(lab->Problem().empty()) << lab->Problem();
    }

    // Starts the test source unless it runs, and waits until the library lists its devices.
    void WithSource() {
        ASSERT_TRUE(lab->StartSource()) << lab->Problem();
        ASSERT_TRUE(WaitUntil([] {
            return ListsAny({PipeWireLab::kCameraId}) && ListsAny({PipeWireLab::kMicrophoneId});
        })) << "the test source's nodes are not listed";
    }
};

TEST_F(PipeWireTest, ListsBothSourcesWithTheirFormatsAndRates) {
    WithSource();
    std::set<std::tuple<std::string, std::string, int>> listed;
    for (const ChangeLog::Change& device : ListedWithIds())
        if (device.id.rfind("pipewire:", 0) == 0)
            listed.insert({device.name, device.id, device.type});
    EXPECT_EQ(
        (std::set<std::tuple<std::string, std::string, int>>{
            {PipeWireLab::kCameraName, PipeWireLab::kCameraId, TavixDeviceMediaTypeVideo},
            {PipeWireLab::kMicrophoneName, PipeWireLab::kMicrophoneId, TavixDeviceMediaTypeSound}}),
        listed);

    DeviceScope camera(TavixDeviceGetWithUniqueID(PipeWireLab::kCameraId));
    std::set<std::tuple<unsigned, unsigned, unsigned, double>> formats;
    EXPECT_TRUE(TavixDeviceFormatEnumerateWithCallBack(
        camera.handle,
        [](const TavixDeviceFormat_C* format, bool isVideo, void* context) {
            if (isVideo)
                static_cast<decltype(formats)*>(context)->insert(
                    {format->dwFormat, format->dwWidth, format->dwHeight, 0});
            return true;
        },
        &formats));
    decltype(formats) withRates;
    for (auto [format, width, height, rate] : formats) {
        TavixDeviceFormatEnumerateFrameRates(
            camera.handle, format, width, height,
            [](const TavixFrameRate_C* first, void* out) {
                *static_cast<double*>(out) = first->framesPerSecond;
                return false;
            },
            &rate);
        withRates.insert({format, width, height, rate});
    }
    EXPECT_EQ((decltype(formats){{kYuvs, 640, 480, 30}, {kBGRA, 320, 240, 15}}), withRates);

    DeviceScope microphone(TavixDeviceGet(PipeWireLab::kMicrophoneName, TavixDeviceMediaTypeSound));
    std::vector<TavixSoundFormat_C> sounds;
    EXPECT_TRUE(TavixDeviceEnumerateSoundFormats(
        microphone.handle,
        [](const TavixSoundFormat_C* sound, void* list) {
            static_cast<std::vector<TavixSoundFormat_C>*>(list)->push_back(*sound);
            return true;
        },
        &sounds));
    ASSERT_EQ(1u, sounds.size());
    EXPECT_EQ(48000, sounds[0].sampleRate);
    EXPECT_EQ(2u, sounds[0].dwChannels);
    EXPECT_EQ(16u, sounds[0].dwBitsPerChannel);
    EXPECT_EQ(0u, sounds[0].dwFormatFlags & 1) << "integers, not floats";
}

// The camera natively (nothing asked: its first format) and converted, from either of its
// formats; the pictures show the bars.
TEST_F(PipeWireTest, CapturesTheCameraNativelyAndConverted) {
    WithSource();
    struct Case {
        unsigned askedFormat, askedWidth, askedHeight, format, width, height;
    };
    const Case cases[] = {{0, 0, 0, kYuvs, 640, 480},
                          {kBGRA, 320, 240, kBGRA, 320, 240},
                          {k2vuy, 640, 480, k2vuy, 640, 480},
                          {kBGRA, 640, 480, kBGRA, 640, 480}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.askedFormat) + " " + std::to_string(c.askedWidth));
        DeviceScope scope(TavixDeviceGet(PipeWireLab::kCameraName, TavixDeviceMediaTypeVideo));
        ASSERT_TRUE(TavixDeviceOpen(scope.handle));
        Picture picture;
        ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, KeepPicture, Data(picture), c.askedFormat,
                                            c.askedWidth, c.askedHeight, nullptr, 0, 0, 0, 0, 0,
                                            nullptr));
        ASSERT_TRUE(WaitUntil([&] { return picture.frames >= 3; })) << "pictures come";
        TavixDeviceStopCapture(scope.handle);
        EXPECT_EQ(c.format, picture.format);
        EXPECT_EQ(c.width, picture.width);
        EXPECT_EQ(c.height, picture.height);
        EXPECT_EQ("", WrongBars(picture));
    }
}

TEST_F(PipeWireTest, CapturesTheTone) {
    WithSource();
    DeviceScope scope(TavixDeviceGet(PipeWireLab::kMicrophoneName, TavixDeviceMediaTypeSound));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    Sound sound;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, nullptr, 0, 0, 0, 0, KeepSound, Data(sound),
                                        0, 48000, 2, 2, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return SoundFrames(sound) >= 24000; })) << "half a second";
    TavixDeviceStopCapture(scope.handle);
    std::lock_guard<std::mutex> hold(sound.mutex);
    EXPECT_EQ(48000u, sound.rate);
    for (const std::vector<double>& channel : sound.channels) {
        const ToneFigures tone = MeasureTone(channel, 48000);
        EXPECT_NEAR(1000, tone.hz, 5);
        EXPECT_NEAR(0.5, tone.peak, 0.02);
        EXPECT_LT(tone.unevenness, 2) << "no sound cut out";
    }
}

// The camera's pictures and the microphone's sound recorded together.
TEST_F(PipeWireTest, RecordsAMovie) {
    WithSource();
    TempFolder folder("tavix-pw");
    const std::string movie = folder / "camera.mov";
    unsigned long recorded = 0;
    {
        DeviceScope scope(TavixDeviceGet(PipeWireLab::kCameraName, TavixDeviceMediaTypeVideo));
        ASSERT_TRUE(TavixDeviceOpen(scope.handle));
        Picture picture;
        ASSERT_TRUE(TavixDeviceStartCaptureWithAudioDevice(
            scope.handle, PipeWireLab::kMicrophoneName, KeepPicture, Data(picture), 0, 0, 0,
            nullptr, 0, 0, 0, 0, 0, movie.c_str()));
        ASSERT_TRUE(WaitUntil([&] { return picture.frames >= 30; }));
        TavixDeviceStopCapture(scope.handle);
        EXPECT_TRUE(TavixDeviceGetRecordingFrameCounts(scope.handle, &recorded, nullptr));
        EXPECT_GT(recorded, 0u);
    }
    const ProbedMovie probed = ProbeMovie(movie);
    ASSERT_TRUE(probed.readable) << movie;
    const ProbedStream* video = probed.Find("video");
    ASSERT_NE(nullptr, video);
    EXPECT_EQ(640, video->width);
    EXPECT_EQ(480, video->height);
    EXPECT_EQ(long(recorded), video->frames);
    const ProbedStream* audio = probed.Find("audio");
    ASSERT_NE(nullptr, audio);
    EXPECT_EQ(48000, audio->sampleRate);
}

// The command lists the camera and records from it, as a user runs it.
TEST_F(PipeWireTest, TheCommandListsAndRecordsTheCamera) {
    WithSource();
    const std::string tavix = std::string(TAVIX_BINARY_DIR) + "/tavix";
    const CommandOutput list = RunCommand("timeout 60 " + tavix + " list");
    EXPECT_EQ(0, list.status);
    EXPECT_NE(std::string::npos, list.output.find(PipeWireLab::kCameraName)) << list.output;
    TempFolder folder("tavix-pw");
    const std::string movie = folder / "command.mov";
    const CommandOutput capture =
        RunCommand("timeout 60 " + tavix + " capture '" + PipeWireLab::kCameraName +
                   "' --seconds 1 --record " + movie + " -y");
    EXPECT_EQ(0, capture.status) << capture.output;
    const ProbedMovie probed = ProbeMovie(movie);
    ASSERT_NE(nullptr, probed.Find("video")) << capture.output;
    EXPECT_GT(probed.Find("video")->frames, 0);
}

// The source ends mid-capture: the host is told, the device is no longer connected, pictures
// stop, and stopping does not hang.
TEST_F(PipeWireTest, ASourceThatEndsMidCaptureIsToldAndStopsDelivering) {
    WithSource();
    ChangeLog changes;
    DeviceScope scope(TavixDeviceGet(PipeWireLab::kCameraName, TavixDeviceMediaTypeVideo));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    Picture picture;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, KeepPicture, Data(picture), 0, 0, 0, nullptr,
                                        0, 0, 0, 0, 0, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return picture.frames >= 3; }));
    EXPECT_TRUE(TavixDeviceIsConnected(scope.handle));

    lab->StopSource(true);
    EXPECT_EQ((std::set<std::string>{PipeWireLab::kCameraId, PipeWireLab::kMicrophoneId}),
              changes.Wait("pipewire:", false, 2, std::chrono::seconds(30)));
    EXPECT_TRUE(WaitUntil([&] { return !TavixDeviceIsConnected(scope.handle); }));
    // Pictures already on their way when the source went may still come, but none after.
    const int before = picture.frames;
    EXPECT_FALSE(
        WaitUntil([&] { return picture.frames > before + 1; }, std::chrono::milliseconds(1000)));
    auto stopped = std::async(std::launch::async, [&] { TavixDeviceStopCapture(scope.handle); });
    EXPECT_EQ(std::future_status::ready, stopped.wait_for(std::chrono::seconds(30)))
        << "StopCapture hangs";
}

} // namespace
