// Recording while capturing, through the exported functions, checked with ffprobe: every way of
// ending capture leaves a complete file holding what the callbacks saw; awkward paths, a full
// disk, a stream that never comes and a slow host lose nothing they should keep.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "platform/virtualdevices.h"
#include "support/ffprobe.h"
#include "support/tavix_helpers.h"
#include "support/tempfolder.h"

namespace {

using std::chrono::milliseconds;

class RecordingTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!HaveFFprobe())
            GTEST_SKIP() << "ffprobe is not installed (scripts/install-deps.sh installs it)";
    }
    void TearDown() override { virtualdevices::Reset(); }

    // Opens the test camera and starts it with a companion microphone, recording into path.
    static unsigned long StartCameraRecording(const std::string& path, CallbackLog& log,
                                              const char* microphone = nullptr) {
        const unsigned long camera =
            TavixDeviceGet(virtualdevices::kTestCameraName, TavixDeviceMediaTypeVideo);
        EXPECT_TRUE(TavixDeviceOpen(camera));
        EXPECT_TRUE(TavixDeviceStartCaptureWithAudioDevice(
            camera, microphone != nullptr ? microphone : virtualdevices::kTestMicrophoneName,
            LogFrame, DataOf(log), kCVPixelFormatType_32BGRA, 320, 240, LogSound, DataOf(log), 0, 0,
            0, 0, path.c_str()));
        return camera;
    }

    // Waits until the callbacks have seen `frames` pictures and some sound; the recorder, fed on
    // the same capture threads, has then had both too.
    static bool WaitForPicturesAndSound(const CallbackLog& log, int frames) {
        return WaitUntil([&] { return log.frames >= frames && log.sampleFrames > 0; },
                         milliseconds(20000));
    }

    TempFolder temp{"tavix-recording"};
};

bool FileExists(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

// The pictures of the device's ended recording: the file holds (inFile) as many as the recorded
// count says; returns those accounted for, in the file or counted as not recorded (the recorder
// drops pictures when its encoder falls behind, as on a busy machine).
long PicturesAccountedFor(unsigned long device, long inFile) {
    unsigned long recorded = 0, notRecorded = 0;
    EXPECT_TRUE(TavixDeviceGetRecordingFrameCounts(device, &recorded, &notRecorded));
    EXPECT_EQ(inFile, long(recorded)) << "the file holds what the count says";
    return long(recorded + notRecorded);
}

// The pictures the callbacks saw are accounted for by a recording with sound: the recorder
// starts once both pictures and sound have come, so the pictures before the first sound are not
// in it (give or take the one the camera delivers while the sound arrives).
void ExpectPicturesOf(unsigned long device, const CallbackLog& log, long inFile) {
    const long frames = log.frames, accounted = PicturesAccountedFor(device, inFile);
    EXPECT_LE(accounted, frames);
    EXPECT_GE(accounted, frames - std::max(0, log.framesAtFirstSound.load()) - 1);
}

// The test camera's pictures (its 320 x 240 mode, streamed for the callbacks' size though they
// asked for another pixel format) and the microphone's stereo sound, as many pictures as the
// callbacks saw and as long as they last at 30 per second.
void ExpectRecordingOf(unsigned long device, const std::string& path, const CallbackLog& log,
                       const char* container, const char* soundCodec) {
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable) << path;
    EXPECT_NE(std::string::npos, movie.formatName.find(container)) << movie.formatName;
    ASSERT_EQ(2u, movie.streams.size());
    const ProbedStream* video = movie.Find("video");
    const ProbedStream* audio = movie.Find("audio");
    ASSERT_NE(nullptr, video);
    ASSERT_NE(nullptr, audio);
    EXPECT_TRUE(video->codecName == "h264" || video->codecName == "mpeg4") << video->codecName;
    EXPECT_EQ(320, video->width) << "the size asked for, whatever the pixel format";
    EXPECT_EQ(240, video->height);
    ExpectPicturesOf(device, log, video->frames);
    EXPECT_EQ(soundCodec, audio->codecName);
    EXPECT_EQ(2, audio->channels);
    // The pictures keep the camera's timing (the sound may run on a little past them).
    EXPECT_GE(movie.duration, video->frames / 30.0 - 0.1);
}

// The ways capture ends or goes on, as the host sees each: whether the session still runs,
// whether the callbacks still come, and the file, complete and matching the callbacks.
TEST_F(RecordingTest, EveryWayOfEndingLeavesACompleteFile) {
    enum class End { StopCapture, StopRecording, LastRelease, SecondPathThenStop };
    const struct Case {
        const char* name;
        End end;
        const char* file;
        const char* container;
        const char* soundCodec;
        bool capturingAfter;
    } cases[] = {
        {"stop capture, QuickTime", End::StopCapture, "stop.mov", "mov", "pcm_s16le", false},
        {"stop capture, MP4", End::StopCapture, "stop.mp4", "mp4", "aac", false},
        {"stop recording", End::StopRecording, "detached.mov", "mov", "pcm_s16le", true},
        {"last release while capturing", End::LastRelease, "released.mkv", "matroska", "pcm_s16le",
         true},
        {"a second path is ignored", End::SecondPathThenStop, "first.mov", "mov", "pcm_s16le",
         false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = temp / c.file, ignored = temp / "ignored.mov";
        CallbackLog log;
        const unsigned long camera = StartCameraRecording(path, log);
        DeviceScope scope(camera);
        ASSERT_TRUE(WaitForPicturesAndSound(log, 20));
        switch (c.end) {
        case End::StopCapture:
            ASSERT_TRUE(TavixDeviceStopCapture(camera));
            break;
        case End::StopRecording:
            ASSERT_TRUE(TavixDeviceStopRecording(camera));
            break;
        case End::LastRelease:
            // Detaches the callbacks and ends the recording; no release counts down while
            // capturing, so the handle stays.
            ASSERT_TRUE(TavixDeviceRelease(camera));
            ASSERT_TRUE(TavixDeviceRelease(camera));
            EXPECT_TRUE(TavixDeviceIsOpened(camera));
            break;
        case End::SecondPathThenStop:
            ASSERT_TRUE(TavixDeviceStartCapture(camera, LogFrame, DataOf(log), 0, 0, 0, nullptr, 0,
                                                0, 0, 0, 0, ignored.c_str()));
            ASSERT_TRUE(WaitForPicturesAndSound(log, log.frames + 10));
            ASSERT_TRUE(TavixDeviceStopCapture(camera));
            EXPECT_FALSE(FileExists(ignored));
            break;
        }
        EXPECT_EQ(c.capturingAfter, TavixDeviceIsCapturing(camera));
        // Callbacks are detached before the recording ends, so both saw the same pictures; no
        // picture or sound reaches them afterwards (probing the file takes a while).
        const int frames = log.frames;
        const long sound = log.sampleFrames;
        ExpectRecordingOf(camera, path, log, c.container, c.soundCodec);
        EXPECT_EQ(frames, log.frames.load()) << "a picture came after the end";
        EXPECT_EQ(sound, log.sampleFrames.load()) << "sound came after the end";
        if (c.end == End::LastRelease) {
            ASSERT_TRUE(TavixDeviceStopCapture(camera));
            TavixDeviceClose(camera);
            EXPECT_TRUE(TavixDeviceRelease(camera));
            EXPECT_FALSE(TavixHasUsedDevices());
            scope.handle = 0;
        }
    }
}

// A file closed by StopRecording is not touched again; a new start records into a new file.
TEST_F(RecordingTest, AStartAfterStopRecordingRecordsANewFile) {
    const std::string path = temp / "closed.mov", second = temp / "second.mov";
    CallbackLog log, log2;
    DeviceScope scope(StartCameraRecording(path, log));
    ASSERT_TRUE(WaitForPicturesAndSound(log, 10));
    ASSERT_TRUE(TavixDeviceStopRecording(scope.handle));
    struct stat closed {};
    ASSERT_EQ(0, stat(path.c_str(), &closed));
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log2), 0, 0, 0, nullptr, 0,
                                        0, 0, 0, 0, second.c_str()));
    ASSERT_TRUE(WaitUntil([&] { return log2.frames >= 10; }));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    struct stat after {};
    ASSERT_EQ(0, stat(path.c_str(), &after));
    EXPECT_EQ(closed.st_size, after.st_size);
    const ProbedMovie movie = ProbeMovie(second);
    ASSERT_TRUE(movie.readable);
    ASSERT_NE(nullptr, movie.Find("video"));
    // The sound is flowing already, so the recorder starts at once: a picture or two at most
    // come before its first sound.
    const long accounted = PicturesAccountedFor(scope.handle, movie.Find("video")->frames);
    EXPECT_LE(accounted, log2.frames.load());
    EXPECT_GE(accounted, log2.frames - 3);
}

// The codecs chosen for a device's next recording are what its file holds; names that are not
// codecs are refused, and so is a start whose container cannot hold the choice, with the reason.
TEST_F(RecordingTest, ChosenCodecsAreWhatTheFileHolds) {
    const std::string refused = temp / "lossless.mp4", path = temp / "lossless.mkv";
    CallbackLog log;
    DeviceScope scope(TavixDeviceGet(virtualdevices::kTestCameraName, TavixDeviceMediaTypeVideo));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    const struct {
        const char* video;
        int quality;
        const char* audio;
    } wrong[] = {{"vp9", -1, nullptr},
                 {"ffv1", 20, nullptr},
                 {nullptr, 52, nullptr},
                 {"h264", -2, nullptr},
                 {nullptr, -1, "mp3"}};
    for (const auto& w : wrong)
        EXPECT_FALSE(TavixDeviceSetRecordingOptions(scope.handle, w.video, w.quality, w.audio))
            << (w.video ? w.video : "") << " " << w.quality << " " << (w.audio ? w.audio : "");
    EXPECT_FALSE(TavixDeviceSetRecordingOptions(0, nullptr, -1, nullptr));
    ASSERT_TRUE(TavixDeviceSetRecordingOptions(scope.handle, "FFV1", -1, "aac"));
    EXPECT_FALSE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log), 0, 0, 0, nullptr, 0,
                                         0, 0, 0, 0, refused.c_str()));
    char why[512] = "";
    TavixDeviceGetLastError(scope.handle, why, sizeof why);
    EXPECT_NE(nullptr, strstr(why, ".mp4 cannot hold FFV1")) << why;
    EXPECT_FALSE(FileExists(refused));
    ASSERT_TRUE(TavixDeviceStartCaptureWithAudioDevice(
        scope.handle, virtualdevices::kTestMicrophoneName, LogFrame, DataOf(log), 0, 0, 0, LogSound,
        DataOf(log), 0, 0, 0, 0, path.c_str()));
    ASSERT_TRUE(WaitForPicturesAndSound(log, 10));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable);
    ASSERT_TRUE(movie.Find("video") && movie.Find("audio"));
    EXPECT_EQ("ffv1", movie.Find("video")->codecName);
    EXPECT_EQ("aac", movie.Find("audio")->codecName);
}

// A Motion-JPEG camera's own JPEGs go into the file unchanged: the comment the virtual camera
// writes into each JPEG is in the file only then, not when pictures are encoded again.
TEST_F(RecordingTest, AMotionJPEGCamerasOwnPicturesAreStoredUnchanged) {
    virtualdevices::VideoMode mode{kCVPixelFormatType_32BGRA, 320, 240, 30};
    mode.jpeg = true;
    virtualdevices::Add(CameraSpec("JPEG Camera", mode));
    for (const char* camera : {"JPEG Camera", virtualdevices::kTestCameraName}) {
        SCOPED_TRACE(camera);
        const std::string path = temp / "jpeg.mkv";
        CallbackLog log;
        DeviceScope scope(TavixDeviceGet(camera, TavixDeviceMediaTypeVideo));
        ASSERT_TRUE(TavixDeviceOpen(scope.handle));
        ASSERT_TRUE(TavixDeviceSetRecordingOptions(scope.handle, "mjpeg", -1, nullptr));
        ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log), 0, 0, 0, nullptr,
                                            0, 0, 0, 0, 0, path.c_str()));
        ASSERT_TRUE(WaitUntil([&] { return log.frames >= 10; }));
        ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
        const ProbedMovie movie = ProbeMovie(path);
        ASSERT_TRUE(movie.readable && movie.Find("video"));
        EXPECT_EQ("mjpeg", movie.Find("video")->codecName);
        std::string bytes;
        if (FILE* file = fopen(path.c_str(), "rb")) {
            char chunk[65536];
            for (size_t got; (got = fread(chunk, 1, sizeof chunk, file)) > 0;)
                bytes.append(chunk, got);
            fclose(file);
        }
        EXPECT_EQ(camera == std::string("JPEG Camera"),
                  bytes.find("Tavix Test Camera JPEG") != std::string::npos);
        remove(path.c_str());
    }
}

TEST_F(RecordingTest, PathsWithSpacesAndNonASCIINamesRecord) {
    for (const char* name : {"with space.mov", "Käse – ビデオ.mov", "folder é/x.mp4"}) {
        SCOPED_TRACE(name);
        const std::string path = temp / name;
        if (std::string(name).find('/') != std::string::npos) {
            ASSERT_EQ(0, mkdir((temp / "folder é").c_str(), 0755));
        }
        CallbackLog log;
        DeviceScope scope(StartCameraRecording(path, log));
        ASSERT_TRUE(WaitForPicturesAndSound(log, 10));
        ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
        const ProbedMovie movie = ProbeMovie(path);
        ASSERT_TRUE(movie.readable);
        ASSERT_NE(nullptr, movie.Find("video"));
        ExpectPicturesOf(scope.handle, log, movie.Find("video")->frames);
    }
}

// The recorder waits a second for the sound of a companion that never delivers, then records the
// pictures alone; what came during the wait is not in the file.
TEST_F(RecordingTest, ASoundStreamThatNeverComesLeavesAPictureOnlyRecording) {
    virtualdevices::DeviceSpec mic = MicrophoneSpec("Silent Microphone");
    const std::string micId = virtualdevices::Add(mic);
    virtualdevices::SetStalled(micId, true);
    const std::string path = temp / "pictures only.mov";
    CallbackLog log;
    DeviceScope scope(StartCameraRecording(path, log, mic.name.c_str()));
    ASSERT_TRUE(WaitUntil([&] { return log.frames >= 60; }, milliseconds(20000)));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    EXPECT_EQ(0, log.sampleFrames.load());
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable);
    ASSERT_EQ(1u, movie.streams.size());
    ASSERT_NE(nullptr, movie.Find("video"));
    // About one second (30 pictures) went by before the recorder gave up waiting.
    const long accounted = PicturesAccountedFor(scope.handle, movie.Find("video")->frames);
    EXPECT_LE(accounted, log.frames - 25);
    EXPECT_GE(accounted, log.frames - 35);
}

// A host callback that stalls for several frame intervals delays the pictures but loses none of
// them, and neither does the recording.
TEST_F(RecordingTest, AStallingCallbackLosesNoPicture) {
    static std::atomic<int> calls{0};
    calls = 0;
    const auto stalling = [](const unsigned char*, unsigned long, unsigned long, unsigned long,
                             unsigned long, const SMPTETime*, long) {
        if (++calls == 10)
            std::this_thread::sleep_for(milliseconds(400));
    };
    const std::string path = temp / "stalled.mov";
    const unsigned long camera =
        TavixDeviceGet(virtualdevices::kTestCameraName, TavixDeviceMediaTypeVideo);
    DeviceScope scope(camera);
    ASSERT_TRUE(TavixDeviceOpen(camera));
    ASSERT_TRUE(TavixDeviceStartCapture(camera, stalling, 0, 0, 0, 0, nullptr, 0, 0, 0, 0, 0,
                                        path.c_str()));
    ASSERT_TRUE(WaitUntil([&] { return calls >= 40; }, milliseconds(20000)));
    ASSERT_TRUE(TavixDeviceStopCapture(camera));
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable);
    ASSERT_NE(nullptr, movie.Find("video"));
    EXPECT_NEAR(calls.load(), PicturesAccountedFor(camera, movie.Find("video")->frames), 1);
    // The pictures were timed by the device, not by their late arrival.
    EXPECT_NEAR(calls / 30.0, movie.duration, 0.1);
}

// A full disk (here a file-size limit of the recording process) ends the recording only: the
// callbacks keep coming, the pictures after it are counted as not recorded, what was written
// plays, and the command says why the recording failed and exits 1.
TEST_F(RecordingTest, AFullDiskEndsTheRecordingOnly) {
    const std::string tool = std::string(TAVIX_BINARY_DIR) + "/tavix";
    if (!FileExists(tool))
        GTEST_SKIP() << "the tavix command is not built";
    const std::string path = temp / "full.mov", output = temp / "output.txt";
    // 20 kB (sh counts 512-byte blocks): reached with the first twenty pictures or so, well
    // within five seconds even when a loaded machine delivers a third of them.
    const std::string command = "trap '' XFSZ; ulimit -f 40; exec '" + tool +
                                "' capture 'Tavix Test Camera' --audio 'Tavix Test Microphone' "
                                "--seconds 5 --record '" +
                                path + "' > '" + output + "' 2>&1";
    const int status = system(command.c_str());
    const std::string printed = ReadFile(output);
    ASSERT_TRUE(WIFEXITED(status)) << printed;
    EXPECT_EQ(1, WEXITSTATUS(status)) << printed;
    EXPECT_NE(std::string::npos, printed.find("failed: File too large")) << printed;
    // The summary counts the pictures the callbacks got, and those the recorder wrote and
    // could not write: the callbacks went on after the disk was full.
    unsigned long frames = 0, recorded = 0, notRecorded = 0;
    const size_t at = printed.find("video "), file = printed.find(" frames recorded, ");
    ASSERT_NE(std::string::npos, at) << printed;
    ASSERT_EQ(1, sscanf(printed.c_str() + at, "video %lu frames", &frames)) << printed;
    ASSERT_NE(std::string::npos, file) << printed;
    ASSERT_EQ(2, sscanf(printed.c_str() + printed.rfind(", ", file) + 2,
                        "%lu frames recorded, %lu frames not recorded", &recorded, &notRecorded))
        << printed;
    EXPECT_GT(notRecorded, 0u) << printed;
    EXPECT_LE(recorded + notRecorded, frames) << printed;
    struct stat info {};
    ASSERT_EQ(0, stat(path.c_str(), &info));
    EXPECT_LE(info.st_size, 40 * 512);
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable) << "the partial file must play";
    ASSERT_NE(nullptr, movie.Find("video"));
    EXPECT_GT(movie.Find("video")->frames, 0);
    // What the muxer took last may not have reached the disk.
    EXPECT_LE(movie.Find("video")->frames, static_cast<long>(recorded));
}

TEST_F(RecordingTest, ADeckKeepsItsDVPicturesAndTimedSound) {
    const std::string path = temp / "deck.mov";
    DeviceScope scope(TavixDeviceGet(virtualdevices::kTestDeckName, TavixDeviceMediaTypeMuxed));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    EXPECT_FALSE(TavixDeviceGetRecordingFrameCounts(scope.handle, nullptr, nullptr))
        << "nothing recorded yet";
    TavixDeviceSetTransportMode(scope.handle, TavixDeviceTransportModePlay);
    CallbackLog log;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log), 0, 0, 0, LogSound,
                                        DataOf(log), 0, 0, 0, 0, path.c_str()));
    ASSERT_TRUE(WaitForPicturesAndSound(log, 25));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable);
    ASSERT_NE(nullptr, movie.Find("video"));
    EXPECT_EQ("dvvideo", movie.Find("video")->codecName);
    EXPECT_EQ(720, movie.Find("video")->width);
    EXPECT_NEAR(log.frames.load(), movie.Find("video")->frames, 1);
    ASSERT_NE(nullptr, movie.Find("audio"));
    EXPECT_EQ(48000, movie.Find("audio")->sampleRate);
    EXPECT_NEAR(log.frames / 25.0, movie.duration, 0.25);
}

} // namespace
