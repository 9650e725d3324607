#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

#include "platform/qtkit.h"
#include "platform/virtualdevices.h"
#include "support/tavix_helpers.h"

namespace {

using namespace std::chrono_literals;

class FrameCounter : public NSObject, public QTCaptureDecompressedVideoOutputDelegate {
public:
    void captureOutput(QTCaptureOutput*, CVImageBufferRef, QTSampleBuffer*,
                       QTCaptureConnection*) override {
        EXPECT_FALSE(stopped.load()) << "a delegate call after it was cut off";
        inCall = true;
        if (slow)
            std::this_thread::sleep_for(2ms);
        ++frames;
        inCall = false;
    }
    std::atomic<int> frames{0};
    std::atomic<bool> stopped{false}, inCall{false}, slow{false};
};

class SoundCounter : public NSObject, public QTCaptureDecompressedAudioOutputDelegate {
public:
    void captureOutput(QTCaptureOutput*, QTSampleBuffer* sample, QTCaptureConnection*) override {
        const AudioBufferList* list = sample->audioBufferListWithOptions(1);
        ASSERT_NE(nullptr, list);
        auto* value = static_cast<NSValue*>(sample->formatDescription()->attributeForKey(
            QTFormatDescriptionAudioStreamBasicDescriptionAttribute));
        ASSERT_NE(nullptr, value);
        value->getValue(&format);
        frames += list->mBuffers[0].mDataByteSize / format.mBytesPerFrame;
    }
    std::atomic<long> frames{0};
    AudioStreamBasicDescription format{};
};

QTCaptureDevice* FindDevice(const char* name) {
    NSArray* devices = QTCaptureDevice::inputDevices();
    for (size_t i = 0; i < devices->count(); ++i) {
        auto* device = static_cast<QTCaptureDevice*>(devices->objectAtIndex(i));
        if (strcmp(device->localizedDisplayName()->UTF8String(), name) == 0)
            return device;
    }
    return nullptr;
}

// A session with one device input and one output whose delegate is `delegate`; released,
// delegate included, at the end of the scope.
template <class Output, class Delegate>
struct Running {
    Running(QTCaptureDevice* device, Delegate* delegate)
        : input(new QTCaptureDeviceInput(device)), delegate(delegate) {
        EXPECT_TRUE(session->addInput(input, nullptr));
        output->setDelegate(delegate);
        EXPECT_TRUE(session->addOutput(output, nullptr));
        session->startRunning();
    }
    ~Running() {
        session->stopRunning();
        output->setDelegate(nullptr);
        session->release();
        output->release();
        input->release();
        delegate->release();
    }
    QTCaptureSession* session = new QTCaptureSession;
    QTCaptureDeviceInput* input;
    Output* output = new Output;
    Delegate* delegate;
};

class SessionTest : public ::testing::Test {
protected:
    void SetUp() override { pool = new NSAutoreleasePool; }
    void TearDown() override {
        virtualdevices::Reset();
        pool->drain();
    }
    NSAutoreleasePool* pool;
};

} // namespace

TEST_F(SessionTest, BuiltInDevicesAreListedLastWithStableIds) {
    QTCaptureDevice* camera = FindDevice(virtualdevices::kTestCameraName);
    QTCaptureDevice* microphone = FindDevice(virtualdevices::kTestMicrophoneName);
    QTCaptureDevice* deck = FindDevice(virtualdevices::kTestDeckName);
    ASSERT_TRUE(camera && microphone && deck);
    EXPECT_STREQ("tavix-virtual:test-camera", camera->uniqueID()->UTF8String());
    EXPECT_TRUE(camera->hasMediaType(QTMediaTypeVideo));
    EXPECT_FALSE(camera->hasMediaType(QTMediaTypeSound));
    EXPECT_TRUE(microphone->hasMediaType(QTMediaTypeSound));
    EXPECT_TRUE(deck->hasMediaType(QTMediaTypeMuxed));
    EXPECT_EQ(camera, FindDevice(virtualdevices::kTestCameraName)) << "the same object every time";
    EXPECT_NE(nullptr, NSClassFromString("QTCaptureDecompressedAudioOutput"));
    EXPECT_EQ(nullptr, NSClassFromString("QTNoSuchThing"));
}

TEST_F(SessionTest, NoDelegateCallAfterStopOrAfterTheDelegateIsCleared) {
    virtualdevices::SetUnthrottled(true);
    QTCaptureDevice* camera = FindDevice(virtualdevices::kTestCameraName);
    ASSERT_TRUE(camera->open(nullptr));
    for (int round = 0; round < 20; ++round) {
        auto* delegate = new FrameCounter;
        delegate->slow = true;
        Running<QTCaptureDecompressedVideoOutput, FrameCounter> run(camera, delegate);
        ASSERT_TRUE(WaitUntil([&] { return delegate->frames >= 1; }));
        // Either way round, once the call returns no delegate call is running or starts.
        if (round % 2 == 0)
            run.output->setDelegate(nullptr);
        else
            run.session->stopRunning();
        EXPECT_FALSE(delegate->inCall.load());
        delegate->stopped = true;
    }
    camera->close();
}

TEST_F(SessionTest, RefusesInputsOfClosedDevicesAndWhatATestRefuses) {
    QTCaptureDevice* camera = FindDevice(virtualdevices::kTestCameraName);
    auto* session = new QTCaptureSession;
    auto* input = new QTCaptureDeviceInput(camera);
    NSError* error = nullptr;
    EXPECT_FALSE(session->addInput(input, &error)) << "not open";
    EXPECT_NE(nullptr, error);
    ASSERT_TRUE(camera->open(nullptr));
    virtualdevices::SetSessionRefusesInput(camera->uniqueID()->str(), true);
    EXPECT_FALSE(session->addInput(input, nullptr));
    virtualdevices::SetSessionRefusesInput(camera->uniqueID()->str(), false);
    EXPECT_TRUE(session->addInput(input, nullptr));
    EXPECT_TRUE(session->addInput(input, nullptr)) << "adding twice is harmless";
    auto* audio = new QTCaptureDecompressedAudioOutput;
    virtualdevices::SetSessionRefusesOutput(QTCaptureOutput::Kind::Audio, true);
    EXPECT_FALSE(session->addOutput(audio, nullptr));
    virtualdevices::SetSessionRefusesOutput(QTCaptureOutput::Kind::Audio, false);
    EXPECT_TRUE(session->addOutput(audio, nullptr));
    session->release();
    audio->release();
    input->release();
    camera->close();
}

TEST_F(SessionTest, MicrophonePlaysAToneInItsNativeFormat) {
    QTCaptureDevice* microphone = FindDevice(virtualdevices::kTestMicrophoneName);
    ASSERT_TRUE(microphone->open(nullptr));
    {
        Running<QTCaptureDecompressedAudioOutput, SoundCounter> run(microphone, new SoundCounter);
        EXPECT_TRUE(WaitUntil([&] { return run.delegate->frames >= 4800; }));
        run.session->stopRunning();
        EXPECT_EQ(48000.0, run.delegate->format.mSampleRate);
        EXPECT_EQ(2u, run.delegate->format.mChannelsPerFrame);
        EXPECT_TRUE(run.delegate->format.mFormatFlags & kAudioFormatFlagIsFloat);
    }
    microphone->close();
}

TEST_F(SessionTest, UnpluggingStopsFramesAndReportsNotConnected) {
    virtualdevices::DeviceSpec spec;
    spec.name = "Unplug Me";
    spec.video = true;
    spec.videoModes = {{kCVPixelFormatType_32BGRA, 64, 48, 100}};
    const std::string id = virtualdevices::Add(spec);
    QTCaptureDevice* device = FindDevice("Unplug Me");
    ASSERT_NE(nullptr, device);
    ASSERT_TRUE(device->open(nullptr));
    {
        Running<QTCaptureDecompressedVideoOutput, FrameCounter> run(device, new FrameCounter);
        ASSERT_TRUE(WaitUntil([&] { return run.delegate->frames >= 2; }));
        virtualdevices::SetConnected(id, false);
        EXPECT_FALSE(device->isConnected());
        std::this_thread::sleep_for(200ms);
        const int frozen = run.delegate->frames;
        std::this_thread::sleep_for(200ms);
        EXPECT_EQ(frozen, run.delegate->frames.load());
        EXPECT_TRUE(run.session->isRunning());
    }
    device->close();
}
