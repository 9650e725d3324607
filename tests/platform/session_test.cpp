#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

#include "platform/qtkit.h"
#include "platform/virtualdevices.h"

namespace {

using namespace std::chrono_literals;

class FrameCounter : public NSObject, public QTCaptureDecompressedVideoOutputDelegate {
public:
    void captureOutput(QTCaptureOutput*, CVImageBufferRef frame, QTSampleBuffer* sample,
                       QTCaptureConnection*) override {
        EXPECT_FALSE(stopped.load()) << "a delegate call after it was cut off";
        inCall = true;
        lastBase = CVPixelBufferGetBaseAddress(frame);
        format = CVPixelBufferGetPixelFormatType(frame);
        width = CVPixelBufferGetWidth(frame);
        height = CVPixelBufferGetHeight(frame);
        hasTimecode = sample->attributeForKey(QTSampleBufferSMPTETimeAttribute) != nullptr;
        if (hasTimecode)
            timecode =
                static_cast<NSValue*>(sample->attributeForKey(QTSampleBufferSMPTETimeAttribute))
                    ->SMPTETimeValue();
        if (slow)
            std::this_thread::sleep_for(2ms);
        ++frames;
        inCall = false;
    }
    std::atomic<int> frames{0};
    std::atomic<bool> stopped{false}, inCall{false}, slow{false}, hasTimecode{false};
    std::atomic<void*> lastBase{nullptr};
    std::atomic<OSType> format{0};
    std::atomic<size_t> width{0}, height{0};
    SMPTETime timecode{};
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

template <class Predicate>
bool WaitFor(Predicate predicate, std::chrono::milliseconds limit = 5000ms) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

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
        auto* session = new QTCaptureSession;
        auto* input = new QTCaptureDeviceInput(camera);
        ASSERT_TRUE(session->addInput(input, nullptr));
        auto* output = new QTCaptureDecompressedVideoOutput;
        auto* delegate = new FrameCounter;
        delegate->slow = true;
        output->setDelegate(delegate);
        ASSERT_TRUE(session->addOutput(output, nullptr));
        session->startRunning();
        ASSERT_TRUE(WaitFor([&] { return delegate->frames >= 1; }));
        if (round % 2 == 0) {
            output->setDelegate(nullptr);
            EXPECT_FALSE(delegate->inCall.load());
            delegate->stopped = true;
            session->stopRunning();
        } else {
            session->stopRunning();
            EXPECT_FALSE(delegate->inCall.load());
            delegate->stopped = true;
            output->setDelegate(nullptr);
        }
        session->release();
        output->release();
        input->release();
        delegate->release();
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
    auto* session = new QTCaptureSession;
    auto* input = new QTCaptureDeviceInput(microphone);
    ASSERT_TRUE(session->addInput(input, nullptr));
    auto* output = new QTCaptureDecompressedAudioOutput;
    auto* delegate = new SoundCounter;
    output->setDelegate(delegate);
    ASSERT_TRUE(session->addOutput(output, nullptr));
    session->startRunning();
    EXPECT_TRUE(WaitFor([&] { return delegate->frames >= 4800; }));
    session->stopRunning();
    output->setDelegate(nullptr);
    EXPECT_EQ(48000.0, delegate->format.mSampleRate);
    EXPECT_EQ(2u, delegate->format.mChannelsPerFrame);
    EXPECT_TRUE(delegate->format.mFormatFlags & kAudioFormatFlagIsFloat);
    session->release();
    output->release();
    input->release();
    delegate->release();
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
    auto* session = new QTCaptureSession;
    auto* input = new QTCaptureDeviceInput(device);
    ASSERT_TRUE(session->addInput(input, nullptr));
    auto* output = new QTCaptureDecompressedVideoOutput;
    auto* delegate = new FrameCounter;
    output->setDelegate(delegate);
    ASSERT_TRUE(session->addOutput(output, nullptr));
    session->startRunning();
    ASSERT_TRUE(WaitFor([&] { return delegate->frames >= 2; }));
    virtualdevices::SetConnected(id, false);
    EXPECT_FALSE(device->isConnected());
    std::this_thread::sleep_for(200ms);
    const int frozen = delegate->frames;
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(frozen, delegate->frames.load());
    EXPECT_TRUE(session->isRunning());
    session->stopRunning();
    output->setDelegate(nullptr);
    session->release();
    output->release();
    input->release();
    delegate->release();
    device->close();
}
