// A virtual capture device: pictures from the test pattern, sound from a sine, timecode from a
// tape transport, each as its DeviceSpec describes it, paced by the clock unless unthrottled.
#pragma once

#include <atomic>
#include <memory>

#include "platform/virtualdevices.h"
#include "tapetransport.h"
#include "virtualcontrols.h"

class VirtualDevice : public platform::BackendDevice,
                      public std::enable_shared_from_this<VirtualDevice> {
public:
    explicit VirtualDevice(virtualdevices::DeviceSpec spec);

    platform::DeviceInfo Info() const override;
    bool IsConnected() override { return connected.load() && !removed.load(); }
    bool IsInUseByAnotherApplication() override { return inUse.load(); }
    bool Open() override;
    void Close() override {}
    std::vector<platform::DeviceFormat> Formats() override;
    bool HasTransport() override { return spec.transport; }
    platform::TransportState GetTransport() override;
    void SetTransport(const platform::TransportState& state) override;
    std::unique_ptr<platform::DeviceStream>
    StartStream(const platform::StreamRequest& request) override;
    bool StreamFormatFor(const platform::StreamRequest& request,
                         platform::DeviceFormat& format) override;
    // The mode a stream takes for `request`; null for a device without pictures.
    const virtualdevices::VideoMode* ChooseMode(const platform::StreamRequest& request) const;
    std::vector<platform::DeviceControl> Controls() override;
    platform::ControlResult SetControl(const platform::DeviceControl& control, int64_t value,
                                       const std::string& text, platform::DeviceControl& after,
                                       std::string& reason) override;
    bool WatchControls(platform::ControlChangeListener listener) override;

    const virtualdevices::DeviceSpec spec;
    TapeTransport transport;
    const std::unique_ptr<VirtualControls> controls; // null for a device without controls
    std::atomic<bool> connected, inUse, openable;
    std::atomic<bool> removed{false};
    std::atomic<bool> stalled{false};
    std::atomic<uint64_t> delivered{0};
    std::atomic<int> openStreams{0};
};

// Whether devices run as fast as they can (set by the test control).
bool VirtualDevicesUnthrottled();
bool VirtualDevicesDrawStillPictures();
