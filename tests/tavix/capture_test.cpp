// Capture sessions through the exported functions: start, second start, stop recording, stop,
// refusals, the companion audio device, the sound defaults and callback invalidation.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "platform/virtualdevices.h"
#include "support/tavix_helpers.h"
#include "support/tempfolder.h"

namespace {

using std::chrono::milliseconds;

class CaptureTest : public ::testing::Test {
protected:
    void TearDown() override { virtualdevices::Reset(); }

    // A small camera of our own, so tests can make its session refuse things.
    static unsigned long OpenCamera(std::string* uniqueId = nullptr, bool oneStream = false) {
        virtualdevices::DeviceSpec spec =
            CameraSpec("Capture Test Camera", {kCVPixelFormatType_422YpCbCr8, 160, 120, 60});
        spec.oneStream = oneStream;
        const std::string id = virtualdevices::Add(spec);
        if (uniqueId != nullptr)
            *uniqueId = id;
        const unsigned long handle = TavixDeviceGet(spec.name.c_str(), TavixDeviceMediaTypeVideo);
        EXPECT_TRUE(TavixDeviceOpen(handle));
        return handle;
    }

    static bool StartVideo(unsigned long handle, CallbackLog& log, unsigned long format = 0,
                           unsigned long width = 0, unsigned long height = 0,
                           const char* path = nullptr) {
        return TavixDeviceStartCapture(handle, LogFrame, DataOf(log), format, width, height,
                                       nullptr, 0, 0, 0, 0, 0, path);
    }
};

// Frames stop growing: nothing arrives for a while.
bool StaysAt(const std::atomic<int>& counter, int value, milliseconds span = milliseconds(150)) {
    std::this_thread::sleep_for(span);
    return counter == value;
}

TEST_F(CaptureTest, StartWithoutCallbacksRunsTheInputAlone) {
    std::string id;
    DeviceScope scope(OpenCamera(&id));
    // Data without a callback is ignored.
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, nullptr, 0x1234, 0, 0, 0, nullptr, -1, 0, 0,
                                        0, 0, nullptr));
    EXPECT_TRUE(TavixDeviceIsCapturing(scope.handle));
    const uint64_t delivered = virtualdevices::DeliveredSamples(id);
    EXPECT_TRUE(WaitUntil([&] { return virtualdevices::DeliveredSamples(id) >= delivered + 3; }))
        << "the device input runs";
    EXPECT_FALSE(TavixDeviceInvalidateCaptureVideoCallBack(scope.handle, LogFrame, 0x1234))
        << "no callback to cut off";
    EXPECT_TRUE(TavixDeviceStopCapture(scope.handle));
    EXPECT_FALSE(TavixDeviceIsCapturing(scope.handle));
}

TEST_F(CaptureTest, FramesComeInTheAskedFormatWithTheHostsData) {
    DeviceScope scope(OpenCamera());
    CallbackLog log;
    ASSERT_TRUE(StartVideo(scope.handle, log, kCVPixelFormatType_32BGRA, 64, 48));
    ASSERT_TRUE(WaitUntil([&] { return log.frames >= 3; }));
    EXPECT_EQ(static_cast<unsigned long>(kCVPixelFormatType_32BGRA), log.pixelFormat.load());
    EXPECT_EQ(64u, log.width.load());
    EXPECT_EQ(48u, log.height.load());
    EXPECT_GE(log.bytesPerRow.load(), 64u * 4);
    EXPECT_EQ(DataOf(log), log.lastData.load()) << "a pointer passed as data keeps its 64 bits";
}

TEST_F(CaptureTest, ASecondStartKeepsTheFirstCallbacksAndRecording) {
    DeviceScope scope(OpenCamera());
    CallbackLog first, second;
    ASSERT_TRUE(StartVideo(scope.handle, first));
    ASSERT_TRUE(WaitUntil([&] { return first.frames >= 2; }));

    // New attributes are applied; the callback and its data are not replaced.
    ASSERT_TRUE(StartVideo(scope.handle, second, kCVPixelFormatType_32BGRA, 32, 24));
    const int before = first.frames;
    ASSERT_TRUE(WaitUntil([&] { return first.frames >= before + 3 && first.width == 32; }));
    EXPECT_EQ(0, second.frames.load());
    EXPECT_EQ(24u, first.height.load());
}

TEST_F(CaptureTest, StopRecordingDetachesTheCallbacksAndTheSessionRunsOn) {
    DeviceScope scope(OpenCamera());
    CallbackLog first, second;
    ASSERT_TRUE(StartVideo(scope.handle, first));
    ASSERT_TRUE(WaitUntil([&] { return first.frames >= 2; }));
    EXPECT_TRUE(TavixDeviceStopRecording(scope.handle));
    EXPECT_TRUE(TavixDeviceIsCapturing(scope.handle));
    EXPECT_TRUE(StaysAt(first.frames, first.frames));
    EXPECT_FALSE(TavixDeviceInvalidateCaptureVideoCallBack(scope.handle, LogFrame, DataOf(first)))
        << "no delegate is left to invalidate";

    // A start on the running session attaches fresh delegates.
    ASSERT_TRUE(StartVideo(scope.handle, second));
    EXPECT_TRUE(WaitUntil([&] { return second.frames >= 2; }));
    const int firstTotal = first.frames;
    EXPECT_TRUE(StaysAt(first.frames, firstTotal));
}

TEST_F(CaptureTest, StopOnAClosedDeviceLeavesTheSessionRunning) {
    DeviceScope scope(OpenCamera());
    CallbackLog log;
    EXPECT_TRUE(TavixDeviceStopCapture(scope.handle)) << "nothing to stop";
    ASSERT_TRUE(StartVideo(scope.handle, log));
    EXPECT_TRUE(TavixDeviceClose(scope.handle));
    EXPECT_TRUE(TavixDeviceStopCapture(scope.handle));
    EXPECT_TRUE(TavixDeviceStopRecording(scope.handle));
    EXPECT_TRUE(TavixDeviceIsCapturing(scope.handle)) << "the host stops before it closes";
    // The scope reopens, stops and closes.
}

// Each part a session may refuse: what the start answers, whether capture runs and has sound,
// and what the next start, with nothing refused, gives the host. A start refused before the
// session ran keeps the parts it built: a refused input is not offered again (the session runs
// empty until it is stopped), and the frame delegate made for the refused start
// keeps its callback. A start refused while the session ran tears it down.
TEST_F(CaptureTest, RefusedPartsDecideTheStartAndWhatTheNextStartGives) {
    enum class Part { Input, VideoOutput, MovieOutput, SoundOutput };
    enum class Next { Nothing, FirstCallback, NewCallback };
    const struct Case {
        const char* name;
        Part refused;
        bool runningBefore, started, sound;
        Next next;
    } cases[] = {
        {"device input", Part::Input, false, false, false, Next::Nothing},
        {"video output", Part::VideoOutput, false, false, false, Next::FirstCallback},
        {"movie output of a running session", Part::MovieOutput, true, false, false,
         Next::NewCallback},
        {"sound output", Part::SoundOutput, false, true, false, Next::NewCallback},
    };
    const std::string path = ::testing::TempDir() + "refused.mov";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string id;
        DeviceScope scope(OpenCamera(&id));
        const auto start = [&](CallbackLog& log, const char* file) {
            return TavixDeviceStartCaptureWithAudioDevice(
                scope.handle, virtualdevices::kTestMicrophoneName, LogFrame, DataOf(log), 0, 0, 0,
                LogSound, DataOf(log), 0, 0, 0, 0, file);
        };
        const auto refuse = [&](bool refuse) {
            if (c.refused == Part::Input)
                virtualdevices::SetSessionRefusesInput(id, refuse);
            else
                virtualdevices::SetSessionRefusesOutput(
                    c.refused == Part::VideoOutput   ? QTCaptureOutput::Kind::Video
                    : c.refused == Part::MovieOutput ? QTCaptureOutput::Kind::Movie
                                                     : QTCaptureOutput::Kind::Audio,
                    refuse);
        };
        CallbackLog first, next;
        if (c.runningBefore) {
            ASSERT_TRUE(start(first, nullptr));
        }
        refuse(true);
        EXPECT_EQ(c.started, start(first, c.refused == Part::MovieOutput ? path.c_str() : nullptr));
        EXPECT_EQ(c.started, TavixDeviceIsCapturing(scope.handle));
        if (c.started) {
            const int frames = first.frames;
            ASSERT_TRUE(WaitUntil([&] { return first.frames >= frames + 5; }));
            EXPECT_EQ(c.sound, first.sampleFrames > 0);
        }
        refuse(false);
        TavixDeviceStopCapture(scope.handle);
        const int firstFrames = first.frames;
        ASSERT_TRUE(start(next, nullptr));
        EXPECT_TRUE(TavixDeviceIsCapturing(scope.handle));
        const uint64_t delivered = virtualdevices::DeliveredSamples(id);
        switch (c.next) {
        case Next::Nothing:
            ASSERT_TRUE(WaitUntil([&] { return first.frames + next.frames > firstFrames; },
                                  milliseconds(300)) == false);
            EXPECT_EQ(delivered, virtualdevices::DeliveredSamples(id)) << "the input is not there";
            // Stopping the empty session drops its parts; the start after that is whole.
            TavixDeviceStopCapture(scope.handle);
            ASSERT_TRUE(start(next, nullptr));
            EXPECT_TRUE(WaitUntil([&] { return next.frames >= 2 && next.sampleFrames > 0; }));
            break;
        case Next::FirstCallback:
            EXPECT_TRUE(WaitUntil([&] { return first.frames >= 2 && next.sampleFrames > 0; }));
            EXPECT_EQ(0, next.frames.load());
            break;
        case Next::NewCallback:
            EXPECT_TRUE(WaitUntil([&] { return next.frames >= 2 && next.sampleFrames > 0; }));
            break;
        }
    }
}

TEST_F(CaptureTest, SoundDefaultsToSixteenBitStereoAt44100AndFitsTheBuffer) {
    DeviceScope scope(TavixDeviceGet(virtualdevices::kTestDeckName, TavixDeviceMediaTypeMuxed));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    CallbackLog log;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, nullptr, 0, 0, 0, 0, LogSound, DataOf(log), 0,
                                        0, 0, 0, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return log.sampleFrames >= 44100 / 4; }));
    EXPECT_EQ(12u, log.formatFlags.load());
    EXPECT_EQ(44100u, log.sampleRate.load());
    EXPECT_EQ(2u, log.channels.load());
    EXPECT_EQ(2u, log.bytesPerSample.load());
    EXPECT_LE(log.maxSampleFrames * 2 * 2, 65535u);
}

// Closing the companion, through its device or for every device at once, closes the microphone
// (its own handle sees the same device) and stops the session.
TEST_F(CaptureTest, CompanionMicrophoneGivesACameraSoundUntilItIsClosed) {
    for (const bool closeAll : {false, true}) {
        SCOPED_TRACE(closeAll ? "every companion" : "the device's companion");
        DeviceScope scope(OpenCamera());
        CallbackLog log;
        ASSERT_TRUE(TavixDeviceStartCaptureWithAudioDevice(
            scope.handle, virtualdevices::kTestMicrophoneName, LogFrame, DataOf(log), 0, 0, 0,
            LogSound, DataOf(log), kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked, 48000, 1, 4,
            nullptr));
        ASSERT_TRUE(WaitUntil([&] { return log.frames >= 2 && log.sampleFrames >= 4800; }));
        EXPECT_EQ(48000u, log.sampleRate.load());
        EXPECT_EQ(1u, log.channels.load());
        EXPECT_EQ(4u, log.bytesPerSample.load());
        DeviceScope microphone(
            TavixDeviceGet(virtualdevices::kTestMicrophoneName, TavixDeviceMediaTypeSound));
        EXPECT_TRUE(TavixDeviceIsOpened(microphone.handle));

        EXPECT_TRUE(closeAll ? TavixDeviceCloseAllAudioDevices()
                             : TavixDeviceCloseAudioDevice(scope.handle));
        EXPECT_FALSE(TavixDeviceIsCapturing(scope.handle));
        EXPECT_FALSE(TavixDeviceIsOpened(microphone.handle));
    }
    DeviceScope scope(OpenCamera());
    CallbackLog log;
    EXPECT_FALSE(TavixDeviceStartCaptureWithAudioDevice(scope.handle, "", LogFrame, DataOf(log), 0,
                                                        0, 0, LogSound, DataOf(log), 0, 0, 0, 0,
                                                        nullptr));
}

TEST_F(CaptureTest, AnUnopenableCompanionLeavesCaptureWithoutSound) {
    virtualdevices::DeviceSpec mic = MicrophoneSpec("Capture Test Mic");
    mic.openable = false;
    virtualdevices::Add(mic);
    DeviceScope scope(OpenCamera());
    CallbackLog log;
    ASSERT_TRUE(TavixDeviceStartCaptureWithAudioDevice(scope.handle, mic.name.c_str(), LogFrame,
                                                       DataOf(log), 0, 0, 0, LogSound, DataOf(log),
                                                       0, 0, 0, 0, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return log.frames >= 3; }));
    EXPECT_EQ(0, log.sampleFrames.load());
}

std::string LastError(unsigned long handle) {
    char text[1024] = "untouched";
    const bool has = TavixDeviceGetLastError(handle, text, sizeof text);
    EXPECT_EQ(has, text[0] != 0) << text;
    return text;
}

// Wishes that can never be met: a refused video output or recording fails the start with
// nothing running; refused sound leaves capture running without it. Either way the host can
// read why, and the next start clears it. A refused recording leaves no file behind.
TEST_F(CaptureTest, ImpossibleWishesAreRefusedWithAReason) {
    TempFolder temp{"tavix-refusals"};
    const std::string missing = temp.path + "/gone \xC3\xA9/take.mov";
    const unsigned int int8Bytes = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    const struct Case {
        const char* name;
        bool camera, video, sound; // sound comes from the test microphone beside the camera
        unsigned long pixelFormat, width;
        unsigned int flags;
        unsigned long rate, channels, bytes;
        std::string path;
        bool started;
        const char* reason;
    } cases[] = {
        {"pixel format zzzz", true, true, false, 0x7A7A7A7A, 0, 0, 0, 0, 0, "", false, "'zzzz'"},
        {"pixel format ~0", true, true, false, 0xFFFFFFFF, 0, 0, 0, 0, 0, "", false, "0xFFFFFFFF"},
        {"too wide", true, true, false, 0, 20000, 0, 0, 0, 0, "", false, "width of 20000"},
        {"pictures of a microphone", false, true, false, 0, 0, 0, 0, 0, 0, "", false,
         "delivers pictures"},
        {"33 channels", true, true, true, 0, 0, 0, 0, 33, 0, "", true, "33 channels"},
        {"2 MHz", true, true, true, 0, 0, 0, 2000000, 0, 0, "", true, "2000000 Hz"},
        {"8-byte integers", true, true, true, 0, 0, int8Bytes, 0, 0, 8, "", true, "8-byte integer"},
        {"sound of a camera alone", true, true, false, 0, 0, 0, 0, 0, 0, "", true,
         "delivers sound"},
        {"a missing folder", true, true, false, 0, 0, 0, 0, 0, 0, missing, false,
         "No such file or directory"},
        {"a folder", true, true, false, 0, 0, 0, 0, 0, 0, temp.path, false, "Is a directory"},
        {"an unknown extension", true, true, false, 0, 0, 0, 0, 0, 0, temp.path + "/take.xyz",
         false, ".mkv or .avi"},
        {"an empty path", true, true, false, 0, 0, 0, 0, 0, 0, "-", false, "empty file path"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DeviceScope scope(c.camera ? OpenCamera()
                                   : TavixDeviceGet(virtualdevices::kTestMicrophoneName,
                                                    TavixDeviceMediaTypeSound));
        ASSERT_TRUE(TavixDeviceOpen(scope.handle));
        const bool wantsSound = c.sound || c.flags != 0 || c.rate != 0 || c.channels != 0 ||
                                std::string(c.reason) == "delivers sound";
        const char* path = c.path.empty() ? nullptr : c.path == "-" ? "" : c.path.c_str();
        CallbackLog log;
        const auto start = [&] {
            return TavixDeviceStartCaptureWithAudioDevice(
                scope.handle, c.sound ? virtualdevices::kTestMicrophoneName : "Nothing Here",
                c.video ? LogFrame : nullptr, DataOf(log), c.pixelFormat, c.width, 0,
                wantsSound ? LogSound : nullptr, DataOf(log), c.flags, c.rate, c.channels, c.bytes,
                path);
        };
        EXPECT_EQ(c.started, start());
        EXPECT_EQ(c.started, TavixDeviceIsCapturing(scope.handle));
        EXPECT_NE(std::string::npos, LastError(scope.handle).find(c.reason))
            << LastError(scope.handle);
        if (c.started) {
            ASSERT_TRUE(WaitUntil([&] { return log.frames >= 3; }));
            EXPECT_EQ(0, log.sampleFrames.load()) << "the refused sound came";
            TavixDeviceStopCapture(scope.handle);
            ASSERT_TRUE(StartVideo(scope.handle, log));
            EXPECT_EQ("", LastError(scope.handle)) << "a start clears the error";
        }
    }
    struct stat info {};
    EXPECT_NE(0, stat((temp.path + "/gone \xC3\xA9").c_str(), &info)) << "left a folder behind";
    EXPECT_EQ("", LastError(12345)) << "an invalid handle";

    // A short buffer keeps whole characters: the message is cut before the 2-byte 'é', not in it.
    DeviceScope scope(OpenCamera());
    CallbackLog log;
    ASSERT_FALSE(StartVideo(scope.handle, log, 0, 0, 0, missing.c_str()));
    const std::string whole = LastError(scope.handle);
    const size_t at = whole.find("\xC3\xA9");
    ASSERT_NE(std::string::npos, at) << whole;
    char cut[512];
    memset(cut, 'x', sizeof cut);
    EXPECT_TRUE(TavixDeviceGetLastError(scope.handle, cut, at + 2));
    EXPECT_EQ(whole.substr(0, at), cut);
    EXPECT_TRUE(TavixDeviceGetLastError(scope.handle, nullptr, 0));
}

TEST_F(CaptureTest, InvalidationClearsAMatchingCallbackOrData) {
    DeviceScope scope(OpenCamera());
    CallbackLog log;
    EXPECT_FALSE(TavixDeviceInvalidateCaptureVideoCallBack(scope.handle, LogFrame, DataOf(log)))
        << "not capturing";
    ASSERT_TRUE(StartVideo(scope.handle, log));
    EXPECT_FALSE(TavixDeviceInvalidateCaptureAudioCallBack(scope.handle, LogSound, DataOf(log)))
        << "no sound delegate";
    const auto other = [](const unsigned char*, unsigned long, unsigned long, unsigned long,
                          unsigned long, const SMPTETime*, long) {};
    EXPECT_FALSE(TavixDeviceInvalidateCaptureVideoCallBack(scope.handle, other, 7))
        << "neither the callback nor the data match";
    ASSERT_TRUE(WaitUntil([&] { return log.frames >= 2; }));
    // The callback alone matching is enough to cut it off.
    ASSERT_TRUE(TavixDeviceInvalidateCaptureVideoCallBack(scope.handle, LogFrame, 7));
    EXPECT_TRUE(StaysAt(log.frames, log.frames));
    EXPECT_TRUE(TavixDeviceIsCapturing(scope.handle));
}

// Invalidation races the capture thread: once it answers true, the callback never runs again,
// and a callback that was running has finished.
TEST_F(CaptureTest, InvalidationRacingDeliveryNeverLetsACallThrough) {
    virtualdevices::SetUnthrottled(true);
    DeviceScope scope(OpenCamera());
    struct Probe {
        std::atomic<bool> invalidated{false};
        std::atomic<int> inside{0}, lateCalls{0}, calls{0};
    } probe;
    const auto callBack = [](const unsigned char*, unsigned long, unsigned long, unsigned long,
                             unsigned long, const SMPTETime*, long data) {
        Probe& p = *reinterpret_cast<Probe*>(data);
        ++p.inside;
        if (p.invalidated)
            ++p.lateCalls;
        ++p.calls;
        --p.inside;
    };
    const int cycles = 2000;
    for (int i = 0; i < cycles; ++i) {
        probe.invalidated = false;
        const int before = probe.calls;
        ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, callBack, reinterpret_cast<long>(&probe),
                                            0, 0, 0, nullptr, 0, 0, 0, 0, 0, nullptr));
        ASSERT_TRUE(WaitUntil([&] { return probe.calls > before; }));
        ASSERT_TRUE(TavixDeviceInvalidateCaptureVideoCallBack(scope.handle, callBack,
                                                              reinterpret_cast<long>(&probe)));
        EXPECT_EQ(0, probe.inside.load());
        probe.invalidated = true;
        if (i % 2 == 0)
            TavixDeviceStopRecording(scope.handle);
        else
            TavixDeviceStopCapture(scope.handle);
    }
    EXPECT_EQ(0, probe.lateCalls.load());
}

// A camera that streams to one reader at a time, as a V4L2 node does: a callback that stops
// capture and starts it again with another callback gets the new callback's frames, because
// the new stream waits until the stopping call has returned and let go of the old one.
unsigned long gRestartHandle = 0;
CallbackLog gRestartLog;

void RestartFromCallback(const unsigned char*, unsigned long, unsigned long, unsigned long,
                         unsigned long, const SMPTETime*, long) {
    if (++gRestartLog.frames != 2)
        return;
    TavixDeviceStopCapture(gRestartHandle);
    TavixDeviceStartCapture(gRestartHandle, LogFrame, DataOf(gRestartLog), 0, 0, 0, nullptr, 0, 0,
                            0, 0, 0, nullptr);
    // The host goes on working in its callback, so the new stream starts while this call still
    // holds the old one.
    std::this_thread::sleep_for(milliseconds(100));
}

TEST_F(CaptureTest, CallbackRestartsCaptureOnADeviceThatStreamsToOneReader) {
    DeviceScope scope(OpenCamera(nullptr, true));
    gRestartHandle = scope.handle;
    gRestartLog.frames = 0;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, RestartFromCallback, 0, 0, 0, 0, nullptr, 0,
                                        0, 0, 0, 0, nullptr));
    // Two frames reached the first callback; the rest come through LogFrame.
    EXPECT_TRUE(WaitUntil([] { return gRestartLog.frames >= 6; })) << gRestartLog.frames;
    EXPECT_EQ(DataOf(gRestartLog), gRestartLog.lastData);
    EXPECT_TRUE(TavixDeviceIsCapturing(scope.handle));
}

} // namespace
