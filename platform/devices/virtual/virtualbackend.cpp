// The virtual backend: the three built-in test devices, the devices tests add, and the test
// control of devices and sessions.
#include <algorithm>
#include <mutex>
#include <set>

#include "platform/devicemonitor.h"
#include "testpattern.h"
#include "virtualdevice.h"

namespace virtualdevices {
const char* const kTestCameraName = "Tavix Test Camera";
const char* const kTestMicrophoneName = "Tavix Test Microphone";
const char* const kTestDeckName = "Tavix Test Deck";
} // namespace virtualdevices

namespace {

AudioStreamBasicDescription PCM(double rate, UInt32 channels, UInt32 bytes, bool isFloat) {
    AudioStreamBasicDescription format{};
    format.mSampleRate = rate;
    format.mFormatID = kAudioFormatLinearPCM;
    format.mFormatFlags = (isFloat ? kAudioFormatFlagIsFloat : kAudioFormatFlagIsSignedInteger) |
                          kAudioFormatFlagIsPacked;
    format.mBytesPerPacket = format.mBytesPerFrame = bytes * channels;
    format.mFramesPerPacket = 1;
    format.mChannelsPerFrame = channels;
    format.mBitsPerChannel = bytes * 8;
    return format;
}

std::vector<std::shared_ptr<VirtualDevice>> BuiltInDevices() {
    using namespace virtualdevices;
    DeviceSpec camera;
    camera.name = kTestCameraName;
    camera.uniqueId = "tavix-virtual:test-camera";
    camera.video = true;
    camera.controls = true;
    camera.videoModes = {{kCVPixelFormatType_422YpCbCr8, 1280, 720, 30, {60}},
                         {kCVPixelFormatType_422YpCbCr8, 640, 480, 30, {60}},
                         {kCVPixelFormatType_422YpCbCr8, 320, 240, 30, {60}}};
    DeviceSpec microphone;
    microphone.name = kTestMicrophoneName;
    microphone.uniqueId = "tavix-virtual:test-microphone";
    microphone.sound = true;
    microphone.audio = PCM(48000, 2, 4, true);
    DeviceSpec deck;
    deck.name = kTestDeckName;
    deck.uniqueId = "tavix-virtual:test-deck";
    deck.muxed = true;
    deck.transport = true;
    deck.videoModes = {{kCVPixelFormatType_422YpCbCr8, 720, 576, 25}};
    deck.audio = PCM(48000, 2, 2, false);
    return {std::make_shared<VirtualDevice>(camera), std::make_shared<VirtualDevice>(microphone),
            std::make_shared<VirtualDevice>(deck)};
}

struct Registry {
    std::mutex mutex;
    std::vector<std::shared_ptr<VirtualDevice>> builtIn = BuiltInDevices();
    std::vector<std::shared_ptr<VirtualDevice>> added;
    std::set<std::string> refusedInputs;
    bool refusedOutputs[3] = {false, false, false};
    std::atomic<bool> unthrottled{false};
    std::atomic<bool> stillPictures{false};

    std::shared_ptr<VirtualDevice> Find(const std::string& uniqueId) {
        for (auto* list : {&builtIn, &added})
            for (auto& device : *list)
                if (device->spec.uniqueId == uniqueId)
                    return device;
        return nullptr;
    }
};

Registry& TheRegistry() {
    static Registry* registry =
        new Registry; // lives for the process: capture threads may outlive main
    return *registry;
}

class VirtualBackend : public platform::DeviceBackend {
public:
    const char* Name() const override { return "virtual"; }
    std::vector<std::shared_ptr<platform::BackendDevice>> Enumerate() override {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> locked(registry.mutex);
        std::vector<std::shared_ptr<platform::BackendDevice>> devices(registry.builtIn.begin(),
                                                                      registry.builtIn.end());
        devices.insert(devices.end(), registry.added.begin(), registry.added.end());
        return devices;
    }
};

} // namespace

platform::DeviceBackend* VirtualDeviceBackend() {
    static VirtualBackend* backend = new VirtualBackend;
    return backend;
}

bool VirtualDevicesUnthrottled() {
    return TheRegistry().unthrottled.load();
}

bool VirtualDevicesDrawStillPictures() {
    return TheRegistry().stillPictures.load();
}

namespace virtualdevices {

std::string Add(const DeviceSpec& spec) {
    DeviceSpec copy = spec;
    if (copy.uniqueId.empty())
        copy.uniqueId = "tavix-virtual:added:" + spec.name;
    Registry& registry = TheRegistry();
    std::unique_lock<std::mutex> locked(registry.mutex);
    if (auto old = registry.Find(copy.uniqueId)) {
        old->removed = true;
        registry.added.erase(std::remove(registry.added.begin(), registry.added.end(), old),
                             registry.added.end());
    }
    registry.added.push_back(std::make_shared<VirtualDevice>(copy));
    locked.unlock();
    platform::WakeDeviceMonitor();
    return copy.uniqueId;
}

void Remove(const std::string& uniqueId) {
    {
        Registry& registry = TheRegistry();
        std::lock_guard<std::mutex> locked(registry.mutex);
        auto it =
            std::find_if(registry.added.begin(), registry.added.end(),
                         [&](const auto& device) { return device->spec.uniqueId == uniqueId; });
        if (it == registry.added.end())
            return;
        (*it)->removed = true;
        registry.added.erase(it);
    }
    platform::WakeDeviceMonitor();
}

void Reset() {
    Registry& registry = TheRegistry();
    std::unique_lock<std::mutex> locked(registry.mutex);
    for (auto& device : registry.added)
        device->removed = true;
    registry.added.clear();
    for (auto& device : registry.builtIn) {
        device->connected = true;
        device->inUse = false;
        device->openable = true;
        device->SetTransport(platform::TransportState());
        if (device->controls != nullptr)
            device->controls->Reset();
    }
    registry.refusedInputs.clear();
    for (bool& refused : registry.refusedOutputs)
        refused = false;
    registry.unthrottled = false;
    registry.stillPictures = false;
    locked.unlock();
    platform::WakeDeviceMonitor();
}

namespace {
template <class Change>
void Change_(const std::string& uniqueId, Change change) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> locked(registry.mutex);
    if (auto device = registry.Find(uniqueId))
        change(*device);
}
} // namespace

void SetConnected(const std::string& uniqueId, bool connected) {
    Change_(uniqueId, [connected](VirtualDevice& device) { device.connected = connected; });
    platform::WakeDeviceMonitor();
}

void SetInUseByAnotherApplication(const std::string& uniqueId, bool inUse) {
    Change_(uniqueId, [inUse](VirtualDevice& device) { device.inUse = inUse; });
}

void SetOpenable(const std::string& uniqueId, bool openable) {
    Change_(uniqueId, [openable](VirtualDevice& device) { device.openable = openable; });
}

void SetStalled(const std::string& uniqueId, bool stalled) {
    Change_(uniqueId, [stalled](VirtualDevice& device) { device.stalled = stalled; });
}

void CueTape(const std::string& uniqueId, double seconds) {
    Change_(uniqueId, [seconds](VirtualDevice& device) {
        if (device.spec.transport)
            device.transport.Cue(seconds, platform::MonotonicSeconds());
    });
}

void SetUnthrottled(bool unthrottled) {
    TheRegistry().unthrottled = unthrottled;
}

void SetStillPictures(bool still) {
    TheRegistry().stillPictures = still;
}

void SetSessionRefusesInput(const std::string& uniqueId, bool refuse) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> locked(registry.mutex);
    if (refuse)
        registry.refusedInputs.insert(uniqueId);
    else
        registry.refusedInputs.erase(uniqueId);
}

void SetSessionRefusesOutput(QTCaptureOutput::Kind kind, bool refuse) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> locked(registry.mutex);
    registry.refusedOutputs[static_cast<int>(kind)] = refuse;
}

bool SessionRefusesInput(const std::string& uniqueId) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> locked(registry.mutex);
    return registry.refusedInputs.count(uniqueId) != 0;
}

bool SessionRefusesOutput(QTCaptureOutput::Kind kind) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> locked(registry.mutex);
    return registry.refusedOutputs[static_cast<int>(kind)];
}

uint64_t DeliveredSamples(const std::string& uniqueId) {
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> locked(registry.mutex);
    auto device = registry.Find(uniqueId);
    return device != nullptr ? device->delivered.load() : 0;
}

void TestPatternPixel(size_t width, size_t height, uint64_t frame, size_t x, size_t y,
                      uint8_t rgb[3]) {
    TestPattern::Pixel(width, height, frame, x, y, rgb);
}

} // namespace virtualdevices
