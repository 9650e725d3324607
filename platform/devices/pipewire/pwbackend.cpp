#include "platform/devices/pipewire/pwbackend.h"

#include <spa/param/format.h>

#include <cmath>
#include <mutex>
#include <tuple>

#include "platform/devices/pipewire/pwconnection.h"
#include "platform/devices/pipewire/pwstream.h"
#include "platform/pixelformats.h"

namespace platform::pipewire {
namespace {

// The format a stream takes for `request`: of the offered pictures, those in the wished pixel
// format (raw ones before decoded Motion-JPEG) when there are any, the size nearest the wished
// one, then the rate; the node's first (its native format) when nothing is wished. Sound takes
// the node's format.
const NodeFormat* Choose(const std::vector<NodeFormat>& formats, const StreamRequest& request) {
    if (formats.empty())
        return nullptr;
    if (formats.front().format.kind == MediaKind::Sound)
        return &formats.front();
    const OSType wanted = request.pixelFormat != 0 ? CanonicalPixelFormat(request.pixelFormat) : 0;
    auto rank = [&](const NodeFormat& entry) {
        const DeviceFormat& format = entry.format;
        const bool wrongFormat = wanted != 0 && format.formatType != wanted;
        const bool decoded = entry.mediaSubtype != SPA_MEDIA_SUBTYPE_raw;
        double sizeDistance = 0;
        if (request.width != 0 && request.height != 0)
            sizeDistance = std::abs(double(format.width) - double(request.width)) +
                           std::abs(double(format.height) - double(request.height));
        double rateDistance = 0;
        if (request.framesPerSecond > 0)
            rateDistance = std::abs(
                NearestOfferedInterval(format.rates, request.framesPerSecond).FramesPerSecond() -
                request.framesPerSecond);
        return std::make_tuple(wrongFormat, sizeDistance, decoded, rateDistance);
    };
    const NodeFormat* best = &formats.front();
    for (const NodeFormat& entry : formats)
        if (rank(entry) < rank(*best))
            best = &entry;
    return best;
}

class PipeWireDevice : public BackendDevice {
public:
    explicit PipeWireDevice(NodeInfo node) : node(std::move(node)) {}

    DeviceInfo Info() const override {
        DeviceInfo info;
        info.uniqueId = "pipewire:" + node.name;
        info.displayName = node.displayName;
        info.hasVideo = node.isCamera;
        info.hasSound = !node.isCamera;
        info.identity = node.identity;
        return info;
    }

    bool IsConnected() override { return Connection::Shared().HasNode(node.name); }
    bool IsInUseByAnotherApplication() override { return false; }
    // Streams are made for each capture; opening only checks that the node is there.
    bool Open() override { return IsConnected(); }
    void Close() override {}

    std::vector<DeviceFormat> Formats() override {
        std::vector<DeviceFormat> formats;
        for (const NodeFormat& entry : node.formats) {
            // A format offered both raw and as Motion-JPEG at a size is listed once.
            bool listed = false;
            for (const DeviceFormat& known : formats)
                listed = listed ||
                         (known.kind == entry.format.kind &&
                          known.formatType == entry.format.formatType &&
                          known.width == entry.format.width && known.height == entry.format.height);
            if (!listed)
                formats.push_back(entry.format);
        }
        return formats;
    }

    std::unique_ptr<DeviceStream> StartStream(const StreamRequest& request) override {
        // The node as it is now: it may have come back under another id.
        NodeInfo now;
        if (!Connection::Shared().FindNode(node.name, now))
            return nullptr;
        const NodeFormat* format = Choose(now.formats, request);
        if (format == nullptr)
            return nullptr;
        const FrameInterval interval =
            format->format.kind == MediaKind::Video
                ? NearestOfferedInterval(format->format.rates, request.framesPerSecond)
                : FrameInterval();
        return StartCapture(now, *format, interval, request.pixelFormat);
    }

    bool StreamFormatFor(const StreamRequest& request, DeviceFormat& result) override {
        const NodeFormat* format = Choose(node.formats, request);
        if (format == nullptr || format->format.kind != MediaKind::Video)
            return false;
        result = format->format;
        return true;
    }

private:
    NodeInfo node;
};

class PipeWireBackend : public DeviceBackend {
public:
    const char* Name() const override { return "pipewire"; }

    std::vector<std::shared_ptr<BackendDevice>> Enumerate() override {
        std::string problem;
        std::vector<NodeInfo> nodes = Connection::Shared().Nodes(problem);
        {
            std::lock_guard<std::mutex> locked(mutex);
            lastProblem = problem;
        }
        std::vector<std::shared_ptr<BackendDevice>> devices;
        for (NodeInfo& node : nodes)
            devices.push_back(std::make_shared<PipeWireDevice>(std::move(node)));
        return devices;
    }

    std::string Problem() override {
        std::lock_guard<std::mutex> locked(mutex);
        return lastProblem;
    }

private:
    std::mutex mutex;
    std::string lastProblem;
};

} // namespace
} // namespace platform::pipewire

platform::DeviceBackend* PipeWireDeviceBackend() {
    static platform::pipewire::PipeWireBackend backend;
    return &backend;
}
