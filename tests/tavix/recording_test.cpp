// Recording while capturing, through the exported functions, checked with ffprobe: the file
// holds what the callbacks saw, and every way of ending capture leaves a complete file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <cmath>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/virtualdevices.h"
#include "support/tempfolder.h"
#include "support/ffprobe.h"
#include "support/tavix_helpers.h"

namespace {

class RecordingTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!HaveFFprobe())
            GTEST_SKIP() << "ffprobe is not installed (scripts/install-deps.sh installs it)";
    }
    void TearDown() override { virtualdevices::Reset(); }

    // Opens the test camera and starts it with the test microphone, recording into path.
    unsigned long StartCameraRecording(const std::string& path, CallbackLog& log) {
        const unsigned long camera =
            TavixDeviceGet(virtualdevices::kTestCameraName, TavixDeviceMediaTypeVideo);
        EXPECT_TRUE(TavixDeviceOpen(camera));
        EXPECT_TRUE(TavixDeviceStartCaptureWithAudioDevice(
            camera, virtualdevices::kTestMicrophoneName, LogFrame, DataOf(log),
            kCVPixelFormatType_32BGRA, 320, 240, LogSound, DataOf(log), 0, 0, 0, 0, path.c_str()));
        return camera;
    }

    TempFolder temp{"tavix-recording"};
    std::string folder = temp.path;
};

// Pictures and sound, stopped after `seconds`; the file matches what the callbacks received.
void ExpectRecordingOf(const std::string& path, const CallbackLog& log, double seconds,
                       const char* container) {
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable) << path;
    EXPECT_NE(std::string::npos, movie.formatName.find(container)) << movie.formatName;
    ASSERT_EQ(2u, movie.streams.size());
    const ProbedStream* video = movie.Find("video");
    const ProbedStream* audio = movie.Find("audio");
    ASSERT_NE(nullptr, video);
    ASSERT_NE(nullptr, audio);
    EXPECT_TRUE(video->codecName == "h264" || video->codecName == "mpeg4") << video->codecName;
    EXPECT_EQ(1280, video->width) << "the device's own pictures are recorded";
    EXPECT_EQ(720, video->height);
    EXPECT_NEAR(log.frames.load(), video->frames, 1);
    EXPECT_EQ(2, audio->channels);
    EXPECT_NEAR(seconds, movie.duration, 0.25);
}

TEST_F(RecordingTest, EachContainerHoldsWhatTheCallbacksSaw) {
    struct Case {
        const char* file;
        const char* container;
        const char* sound;
    } cases[] = {{"capture.mov", "mov", "pcm_s16le"}, {"capture.mp4", "mp4", "aac"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        const std::string path = folder + "/" + c.file;
        CallbackLog log;
        DeviceScope scope(StartCameraRecording(path, log));
        std::this_thread::sleep_for(std::chrono::milliseconds(1200));
        // Stopping detaches the callbacks first and then ends the recording, so both saw the
        // same frames.
        ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
        ExpectRecordingOf(path, log, 1.2, c.container);
        EXPECT_EQ(c.sound, ProbeMovie(path).Find("audio")->codecName);
    }
}

TEST_F(RecordingTest, StopRecordingClosesTheFileWhileCaptureRunsOn) {
    const std::string path = folder + "/detached.mov";
    CallbackLog log;
    DeviceScope scope(StartCameraRecording(path, log));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    ASSERT_TRUE(TavixDeviceStopRecording(scope.handle));
    EXPECT_TRUE(TavixDeviceIsCapturing(scope.handle));
    struct stat closed {};
    ASSERT_EQ(0, stat(path.c_str(), &closed));
    ExpectRecordingOf(path, log, 0.7, "mov");

    // A new start records into a new file; the closed one is not touched again.
    const std::string second = folder + "/second.mov";
    CallbackLog log2;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log2), 0, 0, 0, nullptr, 0,
                                        0, 0, 0, 0, second.c_str()));
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    struct stat after {};
    ASSERT_EQ(0, stat(path.c_str(), &after));
    EXPECT_EQ(closed.st_size, after.st_size);
    const ProbedMovie movie = ProbeMovie(second);
    ASSERT_TRUE(movie.readable);
    EXPECT_NEAR(log2.frames.load(), movie.Find("video")->frames, 1);
}

TEST_F(RecordingTest, ASecondPathWhileRecordingIsIgnored) {
    const std::string path = folder + "/first.mov", ignored = folder + "/ignored.mov";
    CallbackLog log;
    DeviceScope scope(StartCameraRecording(path, log));
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log), 0, 0, 0, nullptr, 0, 0,
                                        0, 0, 0, ignored.c_str()));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    struct stat info {};
    EXPECT_NE(0, stat(ignored.c_str(), &info));
    EXPECT_TRUE(ProbeMovie(path).readable);
}

TEST_F(RecordingTest, TheLastReleaseDuringCaptureEndsTheRecording) {
    const std::string path = folder + "/released.mov";
    CallbackLog log;
    const unsigned long camera = StartCameraRecording(path, log);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_TRUE(TavixDeviceRelease(camera)); // detaches and ends the recording; keeps running
    const ProbedMovie movie = ProbeMovie(path);
    EXPECT_TRUE(movie.readable);
    EXPECT_NEAR(log.frames.load(), movie.Find("video")->frames, 1);
    DeviceScope scope(camera);
}

TEST_F(RecordingTest, ADeckKeepsItsDVPicturesAndTimedSound) {
    const std::string path = folder + "/deck.mov";
    DeviceScope scope(TavixDeviceGet(virtualdevices::kTestDeckName, TavixDeviceMediaTypeMuxed));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    TavixDeviceSetTransportMode(scope.handle, TavixDeviceTransportModePlay);
    CallbackLog log;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log), 0, 0, 0, LogSound,
                                        DataOf(log), 0, 0, 0, 0, path.c_str()));
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable);
    ASSERT_NE(nullptr, movie.Find("video"));
    EXPECT_EQ("dvvideo", movie.Find("video")->codecName);
    EXPECT_EQ(720, movie.Find("video")->width);
    EXPECT_NEAR(log.frames.load(), movie.Find("video")->frames, 1);
    ASSERT_NE(nullptr, movie.Find("audio"));
    EXPECT_EQ(48000, movie.Find("audio")->sampleRate);
    EXPECT_NEAR(1.0, movie.duration, 0.25);
}

} // namespace
