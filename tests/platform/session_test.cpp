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
    void captureOutput(QTCaptureOutput*, CVImageBufferRef, QTSampleBuffer* buffer,
                       QTCaptureConnection*) override {
        if (frames == 0)
            firstTime = buffer->presentationTime();
        lastTime = buffer->presentationTime();
        ++frames;
    }
    std::atomic<int> frames{0};
    std::atomic<double> firstTime{0}, lastTime{0}; // of the pictures, by the device's clock
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
    EXPECT_EQ(camera, FindDevice(virtualdevices::kTestCameraName)) << "the same object every time";
    EXPECT_NE(nullptr, NSClassFromString("QTCaptureDecompressedAudioOutput"));
    EXPECT_EQ(nullptr, NSClassFromString("QTNoSuchThing"));
}

TEST_F(SessionTest, RefusesTheInputOfAClosedDevice) {
    QTCaptureDevice* camera = FindDevice(virtualdevices::kTestCameraName);
    auto* session = new QTCaptureSession;
    auto* input = new QTCaptureDeviceInput(camera);
    NSError* error = nullptr;
    EXPECT_FALSE(session->addInput(input, &error)) << "not open";
    EXPECT_NE(nullptr, error);
    ASSERT_TRUE(camera->open(nullptr));
    EXPECT_TRUE(session->addInput(input, nullptr));
    EXPECT_TRUE(session->addInput(input, nullptr)) << "adding twice is harmless";
    session->release();
    input->release();
    camera->close();
}

TEST_F(SessionTest, UnpluggingStopsFramesAndReportsNotConnected) {
    const std::string id =
        virtualdevices::Add(CameraSpec("Unplug Me", {kCVPixelFormatType_32BGRA, 64, 48, 100}));
    QTCaptureDevice* device = FindDevice("Unplug Me");
    ASSERT_NE(nullptr, device);
    ASSERT_TRUE(device->open(nullptr));
    {
        Running<QTCaptureDecompressedVideoOutput, FrameCounter> run(device, new FrameCounter);
        ASSERT_TRUE(WaitUntil([&] { return run.delegate->frames >= 2; }));
        virtualdevices::SetConnected(id, false);
        EXPECT_FALSE(device->isConnected());
        // Every frame the device delivered reaches the delegate, and then no more come.
        ASSERT_TRUE(WaitUntil([&] {
            return static_cast<uint64_t>(run.delegate->frames) ==
                   virtualdevices::DeliveredSamples(id);
        }));
        const int frozen = run.delegate->frames;
        std::this_thread::sleep_for(200ms); // ten frame times of the device
        EXPECT_EQ(frozen, run.delegate->frames.load());
        EXPECT_EQ(static_cast<uint64_t>(frozen), virtualdevices::DeliveredSamples(id));
        EXPECT_TRUE(run.session->isRunning());
    }
    device->close();
}

// The video output's frame interval reaches the camera, which streams at the offered rate
// nearest to it (30 and 60 here): its pictures' times lie that far apart, and the output reports
// their nominal rate. No interval leaves the camera at its default.
TEST_F(SessionTest, TheOutputsFrameIntervalPacesTheCamera) {
    QTCaptureDevice* camera = FindDevice(virtualdevices::kTestCameraName);
    ASSERT_TRUE(camera->open(nullptr));
    for (const auto& [interval, rate] :
         {std::pair{1 / 60.0, 60.0}, {1 / 50.0, 60.0}, {0.0, 30.0}}) {
        auto* session = new QTCaptureSession;
        auto* input = new QTCaptureDeviceInput(camera);
        auto* output = new QTCaptureDecompressedVideoOutput;
        auto* counter = new FrameCounter;
        output->setMinimumVideoFrameInterval(interval);
        output->setDelegate(counter);
        EXPECT_TRUE(session->addInput(input, nullptr) && session->addOutput(output, nullptr));
        session->startRunning();
        EXPECT_TRUE(WaitUntil([&] { return counter->frames >= 12; }));
        session->stopRunning();
        EXPECT_EQ(rate, output->DeliveredFrameRate()) << "asked " << 1 / interval;
        EXPECT_NEAR(1 / rate, (counter->lastTime - counter->firstTime) / (counter->frames - 1),
                    1e-6)
            << "asked " << 1 / interval;
        output->setDelegate(nullptr);
        for (NSObject* object : {static_cast<NSObject*>(session), static_cast<NSObject*>(output),
                                 static_cast<NSObject*>(input), static_cast<NSObject*>(counter)})
            object->release();
    }
    camera->close();
}
