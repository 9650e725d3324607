// Which backends list devices (TAVIX_BACKENDS) and the rule that lists a device reachable
// through several of them once, by the first: checked with fake backends, without devices.
#include <gtest/gtest.h>

#include "platform/devicebackend.h"

namespace {

class FakeDevice : public platform::BackendDevice {
public:
    FakeDevice(std::string id, std::string identity) {
        info.uniqueId = std::move(id);
        info.identity = std::move(identity);
    }
    platform::DeviceInfo Info() const override { return info; }
    bool IsConnected() override { return true; }
    bool IsInUseByAnotherApplication() override { return false; }
    bool Open() override { return true; }
    void Close() override {}
    std::vector<platform::DeviceFormat> Formats() override { return {}; }
    std::unique_ptr<platform::DeviceStream> StartStream(const platform::StreamRequest&) override {
        return nullptr;
    }

private:
    platform::DeviceInfo info;
};

class FakeBackend : public platform::DeviceBackend {
public:
    FakeBackend(const char* name, std::vector<std::pair<std::string, std::string>> devices)
        : name(name), devices(std::move(devices)) {}
    const char* Name() const override { return name; }
    std::vector<std::shared_ptr<platform::BackendDevice>> Enumerate() override {
        std::vector<std::shared_ptr<platform::BackendDevice>> listed;
        for (const auto& [id, identity] : devices)
            listed.push_back(std::make_shared<FakeDevice>(id, identity));
        return listed;
    }

private:
    const char* name;
    std::vector<std::pair<std::string, std::string>> devices;
};

TEST(Backends, ChosenInOrderAndEachDeviceListedOnce) {
    // A camera both V4L2 and PipeWire reach (/dev/video0), a node with two inputs (two V4L2
    // devices at /dev/video1), a camera only PipeWire reaches (libcamera), a sound card both
    // PipeWire and ALSA reach (alsa:1,0), ALSA's default device.
    FakeBackend v4l2(
        "v4l2",
        {{"v4l2:0", "/dev/video0"}, {"v4l2:1a", "/dev/video1"}, {"v4l2:1b", "/dev/video1"}});
    FakeBackend pipewire(
        "pipewire", {{"pw:cam0", "/dev/video0"}, {"pw:libcamera", ""}, {"pw:mic", "alsa:1,0"}});
    FakeBackend alsa("alsa", {{"alsa:default", ""}, {"alsa:hw1", "alsa:1,0"}});
    FakeBackend virt("virtual", {{"virtual:camera", ""}});
    const std::vector<platform::DeviceBackend*> all = {&v4l2, &pipewire, &alsa, &virt};
    const struct {
        const char* backends;
        std::vector<std::string> listed;
    } cases[] = {
        {nullptr,
         {"v4l2:0", "v4l2:1a", "v4l2:1b", "pw:libcamera", "pw:mic", "alsa:default",
          "virtual:camera"}},
        {"pipewire,v4l2,alsa,virtual",
         {"pw:cam0", "pw:libcamera", "pw:mic", "v4l2:1a", "v4l2:1b", "alsa:default",
          "virtual:camera"}},
        {" alsa , pipewire", {"alsa:default", "alsa:hw1", "pw:cam0", "pw:libcamera"}},
        {"virtual,nonsense,virtual", {"virtual:camera"}},
        {"",
         {"v4l2:0", "v4l2:1a", "v4l2:1b", "pw:libcamera", "pw:mic", "alsa:default",
          "virtual:camera"}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> listed;
        for (const platform::ListedDevice& device :
             platform::ListDevices(platform::SelectBackends(c.backends, all)))
            listed.push_back(device.info.uniqueId);
        EXPECT_EQ(listed, c.listed) << "TAVIX_BACKENDS=" << (c.backends ? c.backends : "(unset)");
    }
}

} // namespace
