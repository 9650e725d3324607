// Real devices through the library's C interface: a V4L2 camera in several formats and sizes,
// converted and recorded, and a tone captured from an ALSA input. Against the kernel's vivid and
// snd-aloop drivers inside scripts/devvm.sh; elsewhere only the listing is checked and the rest
// skips, saying why.
#include <alsa/asoundlib.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/devices/alsa/alsadevices.h"
#include "platform/devices/v4l2/v4l2camera.h"
#include "platform/pixelformats.h"
#include "support/ffprobe.h"
#include "support/realdevices.h"
#include "support/tavix_helpers.h"
#include "support/tone.h"
#include "support/vivid.h"

namespace {

TEST(RealDevices, AreListedBeforeTheBuiltInOnes) {
    const std::vector<std::string> names = ListedDeviceNames(TavixDeviceMediaTypeAny);
    ASSERT_GE(names.size(), 3u);
    const size_t real = V4L2ListDevices().size();
    EXPECT_EQ("Tavix Test Camera", names[names.size() - 3]);
    EXPECT_EQ("Tavix Test Deck", names.back());
    if (real == 0 && AlsaListDevices().empty()) {
        EXPECT_EQ(3u, names.size()) << "a machine without devices lists only the built-in ones";
    }
    for (const V4L2DeviceInfo& camera : V4L2ListDevices())
        EXPECT_NE(names.end(), std::find(names.begin(), names.end(), camera.displayName));
}

TEST(RealDevices, ACameraDeliversEachFormatAndSizeAsked) {
    REQUIRE_CAMERA(camera, V4L2_PIX_FMT_YUYV);
    DeviceScope scope(TavixDeviceGet(camera.displayName.c_str(), TavixDeviceMediaTypeVideo));
    ASSERT_NE(0u, scope.handle);
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    const OSType formats[] = {kCVPixelFormatType_422YpCbCr8_yuvs,
                              kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange,
                              kCVPixelFormatType_32BGRA};
    const std::pair<unsigned long, unsigned long> sizes[] = {{320, 240}, {640, 480}};
    for (OSType format : formats)
        for (const auto& size : sizes) {
            SCOPED_TRACE(testing::Message() << FindPixelFormat(format)->name << " " << size.first
                                            << "x" << size.second);
            CallbackLog log;
            ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log), format,
                                                size.first, size.second, nullptr, 0, 0, 0, 0, 0,
                                                nullptr));
            EXPECT_TRUE(WaitUntil([&] { return log.frames >= 3; }, std::chrono::seconds(30)));
            EXPECT_TRUE(TavixDeviceStopCapture(scope.handle));
            EXPECT_EQ(format, log.pixelFormat.load());
            EXPECT_EQ(size.first, log.width.load());
            EXPECT_EQ(size.second, log.height.load());
        }
}

std::atomic<const unsigned char*> seenPixels{nullptr};
std::string seenFile;

void KeepMapping(const unsigned char* pixels, unsigned long, unsigned long, unsigned long,
                 unsigned long, const SMPTETime*, long) {
    if (seenFile.empty())
        seenFile = MappedFileOf(pixels); // read on this thread while the buffer is lent out
    seenPixels = pixels;
}

TEST(RealDevices, WhatTheDriverDeliversReachesTheHostWithoutACopy) {
    REQUIRE_CAMERA(camera, V4L2_PIX_FMT_YUYV);
    DeviceScope scope(TavixDeviceGet(camera.displayName.c_str(), TavixDeviceMediaTypeVideo));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    // vivid offers YUYV at 640 x 480: asked for exactly that, the host reads the driver's
    // mapped buffer.
    seenFile.clear();
    seenPixels = nullptr;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, KeepMapping, 0,
                                        kCVPixelFormatType_422YpCbCr8_yuvs, 640, 480, nullptr, 0, 0,
                                        0, 0, 0, nullptr));
    EXPECT_TRUE(WaitUntil([&] { return seenPixels != nullptr; }, std::chrono::seconds(30)));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    EXPECT_EQ(0u, seenFile.rfind("/dev/video", 0)) << "pixels came from \"" << seenFile << "\"";
}

TEST(RealDevices, ACameraRecordsWhatTheCallbackSees) {
    REQUIRE_CAMERA(camera, V4L2_PIX_FMT_YUYV);
    ExpectCameraRecordsWhatTheCallbackSees(camera.displayName, 320, 240, 10, false);
}

TEST(RealDevices, ACameraStreamingInAnotherProcessIsInUse) {
    REQUIRE_CAMERA(camera, V4L2_PIX_FMT_YUYV);
    DeviceScope scope(TavixDeviceGet(camera.displayName.c_str(), TavixDeviceMediaTypeVideo));
    EXPECT_FALSE(TavixDeviceIsUsedByAnotherApplication(scope.handle));
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const std::string node = camera.path;
    const pid_t other = fork();
    if (other == 0) {
        V4L2Camera owner;
        char ok = owner.open(node) == V4L2Camera::Status::Ok &&
                  owner.setFormat(V4L2_PIX_FMT_YUYV, 640, 480, {}) == V4L2Camera::Status::Ok &&
                  owner.start(4) == V4L2Camera::Status::Ok;
        (void)!write(ready[1], &ok, 1);
        pause();
        _exit(0);
    }
    char ok = 0;
    ASSERT_EQ(1, read(ready[0], &ok, 1));
    EXPECT_TRUE(ok);
    EXPECT_TRUE(TavixDeviceIsUsedByAnotherApplication(scope.handle));
    kill(other, SIGKILL);
    waitpid(other, nullptr, 0);
    EXPECT_FALSE(TavixDeviceIsUsedByAnotherApplication(scope.handle));
    close(ready[0]);
    close(ready[1]);
}

// The file handles this process holds on the node at `path` (once the driver unplugs the node,
// the kernel names it "PATH (deleted)").
int HandlesOn(const std::string& path) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const std::string target = std::filesystem::read_symlink(entry.path(), error).string();
        if (target == path || target == path + " (deleted)")
            ++count;
    }
    return count;
}

TEST(RealDevices, AnUnpluggedCameraStopsItsFramesAndReportsItself) {
    REQUIRE_CAMERA(camera, V4L2_PIX_FMT_YUYV);
    DeviceScope scope(TavixDeviceGet(camera.displayName.c_str(), TavixDeviceMediaTypeVideo));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    const std::string node = camera.path;
    const int idle = HandlesOn(node);
    CallbackLog log;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log), 0, 0, 0, nullptr, 0, 0,
                                        0, 0, 0, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return log.frames >= 2; }, std::chrono::seconds(30)));
    const int control = open(node.c_str(), O_RDWR);
    ASSERT_GE(control, 0);
    if (!PressButton(control, "Disconnect")) {
        close(control);
        DEVICE_MISSING() << "the driver cannot simulate an unplug";
    }
    EXPECT_TRUE(
        WaitUntil([&] { return !TavixDeviceIsConnected(scope.handle); }, std::chrono::seconds(30)));
    // The capture keeps its handle on the unplugged node until it stops (vivid would bring the
    // node back as soon as the last handle closes), and no frame comes from it.
    EXPECT_EQ(idle + 2, HandlesOn(node)) << "the capture's and the control's";
    const int frames = log.frames;
    EXPECT_TRUE(TavixDeviceStopCapture(scope.handle));
    EXPECT_EQ(frames, log.frames.load()) << "frames stop";
    EXPECT_EQ(idle + 1, HandlesOn(node)) << "the stop lets the node go";
    close(control);
    // vivid comes back once the last handle is closed.
    EXPECT_TRUE(
        WaitUntil([&] { return TavixDeviceIsConnected(scope.handle); }, std::chrono::seconds(30)));
}

struct ToneLog {
    std::mutex mutex;
    std::vector<int16_t> left; // the first channel, as delivered
    unsigned long rate = 0;
};

void KeepSound(const unsigned char* samples, unsigned int, unsigned long sampleRate,
               unsigned long channels, unsigned long, unsigned long frames, long data) {
    ToneLog& log = *reinterpret_cast<ToneLog*>(data);
    std::lock_guard<std::mutex> locked(log.mutex);
    log.rate = sampleRate;
    const auto* values = reinterpret_cast<const int16_t*>(samples);
    for (unsigned long i = 0; i < frames; ++i)
        log.left.push_back(values[i * channels]);
}

TEST(RealDevices, ASoundInputCapturesAToneAtItsFrequency) {
    REQUIRE_LOOPBACK(input);
    DeviceScope scope(TavixDeviceGet(input.c_str(), TavixDeviceMediaTypeSound));
    ASSERT_NE(0u, scope.handle);
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    std::atomic<bool> stop{false};
    std::thread player(PlayLoopbackTone, 440.0, std::cref(stop));
    ToneLog log;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, nullptr, 0, 0, 0, 0, KeepSound,
                                        reinterpret_cast<long>(&log), 0, 44100, 2, 2, nullptr));
    const bool enough = WaitUntil(
        [&] {
            std::lock_guard<std::mutex> locked(log.mutex);
            return log.left.size() >= 44100;
        },
        std::chrono::seconds(30));
    TavixDeviceStopCapture(scope.handle);
    stop = true;
    player.join();
    ASSERT_TRUE(enough);
    EXPECT_EQ(44100u, log.rate);
    // Frequency from rising zero crossings over the second half (past any start-up silence).
    const ToneFigures tone =
        MeasureTone(std::vector<double>(log.left.begin() + static_cast<long>(log.left.size() / 2),
                                        log.left.end()),
                    44100);
    ASSERT_GT(tone.crossings, 10u) << "silence";
    EXPECT_NEAR(440.0, tone.hz, 5);
}

TEST(RealDevices, ACameraTakesItsSoundFromAnAlsaCompanion) {
    REQUIRE_CAMERA(camera, V4L2_PIX_FMT_YUYV);
    REQUIRE_LOOPBACK(input);
    DeviceScope scope(TavixDeviceGet(camera.displayName.c_str(), TavixDeviceMediaTypeVideo));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    std::atomic<bool> stop{false};
    std::thread player(PlayLoopbackTone, 1000.0, std::cref(stop));
    CallbackLog log;
    ASSERT_TRUE(TavixDeviceStartCaptureWithAudioDevice(scope.handle, input.c_str(), LogFrame,
                                                       DataOf(log), 0, 320, 180, LogSound,
                                                       DataOf(log), 0, 0, 0, 0, nullptr));
    const bool both = WaitUntil([&] { return log.frames >= 3 && log.sampleFrames >= 4410; },
                                std::chrono::seconds(30));
    EXPECT_TRUE(TavixDeviceCloseAudioDevice(scope.handle));
    EXPECT_FALSE(TavixDeviceIsCapturing(scope.handle)) << "dropping the companion stops capture";
    stop = true;
    player.join();
    EXPECT_TRUE(both) << log.frames.load() << " frames, " << log.sampleFrames.load() << " samples";
    EXPECT_EQ(44100u, log.sampleRate.load());
}

} // namespace
