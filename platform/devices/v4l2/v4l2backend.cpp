// V4L2 cameras as capture devices: every video capture node that can stream (single-planar or
// multiplanar), its formats in the platform's pixel formats, and a stream that hands out the
// driver's mapped buffers themselves (no pixel copy), pictures joined from formats whose planes
// sit in separate buffers (one copy), or, for Motion-JPEG cameras, pictures decoded straight
// into the format the outputs asked for.
#include "platform/devices/v4l2/v4l2backend.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "platform/devicemonitor.h"
#include "platform/devices/v4l2/mjpegdecoder.h"
#include "platform/devices/v4l2/v4l2colour.h"
#include "platform/devices/v4l2/v4l2controls.h"
#include "platform/devices/v4l2/v4l2faults.h"
#include "platform/devices/v4l2/v4l2negotiation.h"
#include "platform/devices/v4l2/v4l2planes.h"
#include "platform/pixelformats.h"

namespace {

// Enough buffers that a capture thread busy for a frame time or two drops nothing at 30 fps.
constexpr unsigned kStreamBuffers = 6;
// What a camera is asked for when the outputs leave the choice to it; without a pixel format
// wish, the first format reaching kWantedRate at the size is taken. Every stream runs at the
// fastest rate its size is offered at unless the outputs ask for another.
constexpr uint32_t kDefaultWidth = 1280, kDefaultHeight = 720;
constexpr double kWantedRate = 30;
// Motion-JPEG is listed as '2vuy', which every output converts from; a stream decodes it into
// the format its outputs ask for when the decoder writes that.
constexpr OSType kDecodedFormat = kCVPixelFormatType_422YpCbCr8;

bool IsMjpeg(uint32_t fourcc) {
    return fourcc == V4L2_PIX_FMT_MJPEG || fourcc == V4L2_PIX_FMT_JPEG;
}

// The platform's pixel format for a driver format: its own, the one its separate planes are
// joined into, or the decoded one for JPEG; 0 for formats this backend cannot deliver.
OSType PlatformFormatOf(uint32_t fourcc) {
    if (IsMjpeg(fourcc))
        return kDecodedFormat;
    if (const PixelFormatInfo* info = FindPixelFormatByV4L2(fourcc))
        return info->pixelFormat;
    const V4L2SeparatePlanes* planes = V4L2FindSeparatePlanes(fourcc);
    return planes != nullptr ? planes->pixelFormat : 0;
}

// The driver format to ask for when the outputs want `pixelFormat`: the one the format table
// names for it when offered, else another delivered as it (stored alike, or with its planes in
// separate buffers to be joined); 0 when the device offers none. Motion-JPEG is left to the
// choice by rate.
uint32_t WantedFourcc(const std::vector<V4L2Format>& formats, OSType pixelFormat) {
    const PixelFormatInfo* wanted = pixelFormat != 0 ? FindPixelFormat(pixelFormat) : nullptr;
    if (wanted == nullptr)
        return 0;
    uint32_t alike = 0;
    for (const V4L2Format& format : formats) {
        if (wanted->v4l2Format != 0 && format.fourcc == wanted->v4l2Format)
            return format.fourcc;
        if (alike == 0 && !IsMjpeg(format.fourcc) &&
            PlatformFormatOf(format.fourcc) == wanted->pixelFormat)
            alike = format.fourcc;
    }
    return alike;
}

// How the two fields of the driver's pictures sit in time. V4L2_FIELD_INTERLACED leaves the
// order to the standard: 525-line (NTSC) video sends the bottom field first, the rest the top.
FieldOrder FieldOrderOf(const V4L2Camera::StreamFormat& format) {
    switch (format.field) {
    case V4L2_FIELD_INTERLACED_TB:
        return FieldOrder::TopFirst;
    case V4L2_FIELD_INTERLACED_BT:
        return FieldOrder::BottomFirst;
    case V4L2_FIELD_INTERLACED:
        return (format.standard & V4L2_STD_525_60) != 0 && (format.standard & V4L2_STD_625_50) == 0
                   ? FieldOrder::BottomFirst
                   : FieldOrder::TopFirst;
    default:
        return FieldOrder::Progressive;
    }
}

// Whether pictures in this field layout are whole frames: not the two fields one after the
// other in the buffer (SEQ_TB, SEQ_BT), which would need weaving first.
bool DeliversWholeFrames(uint32_t field) {
    return field != V4L2_FIELD_SEQ_TB && field != V4L2_FIELD_SEQ_BT;
}

// One dequeued driver buffer wrapped by a pixel buffer; handed back to the driver when the
// pixel buffer's last reference goes.
void RequeueFrame(void* frame, const void*) {
    auto* held = static_cast<V4L2Frame*>(frame);
    held->requeue();
    delete held;
}

class V4L2Stream : public platform::DeviceStream {
public:
    V4L2Stream(std::unique_ptr<V4L2Camera> camera, OSType pixelFormat, OSType requested,
               std::string deviceId)
        : camera(std::move(camera)), pixelFormat(pixelFormat),
          decodedFormat(MjpegDecoder::DeliveredFormat(requested)), deviceId(std::move(deviceId)) {
        const V4L2Camera::StreamFormat& format = this->camera->format();
        colour = V4L2Colour(format.colorspace, format.ycbcrEncoding, format.quantization);
        fieldOrder = FieldOrderOf(format);
        separatePlanes = V4L2FindSeparatePlanes(format.fourcc);
        if (separatePlanes != nullptr)
            joinedPictures =
                new CVPixelBufferPool(separatePlanes->pixelFormat, format.width, format.height);
    }

    ~V4L2Stream() override {
        camera->stop();
        camera->close();
        if (failed)
            V4L2SetStreamFailed(deviceId, false);
        if (joinedPictures != nullptr) {
            joinedPictures->Invalidate();
            joinedPictures->release();
        }
    }

    // A stream whose driver cannot stream (it refused to start, or its queue broke) delivers
    // nothing more; the node is let go at once, and the device reports itself as not connected
    // until the stream is.
    void Fail() {
        if (failed)
            return;
        failed = true;
        camera->stop();
        camera->close();
        V4L2SetStreamFailed(deviceId, true);
    }

    Result Read(int timeoutMs, platform::CapturedSample& sample) override {
        if (failed) {
            // Nothing will come: the wait only paces the capture thread's stop checks.
            std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
            return Result::Timeout;
        }
        V4L2Frame frame;
        switch (camera->waitFrame(timeoutMs, frame)) {
        case V4L2Camera::Wait::Timeout:
            return Result::Timeout;
        case V4L2Camera::Wait::Gone:
            // A driver may take a node away without the kernel announcing it (vivid's unplug
            // control): the device monitor is told to look.
            platform::WakeDeviceMonitor();
            return Result::Gone;
        case V4L2Camera::Wait::Failed:
            Fail();
            return Result::Timeout;
        case V4L2Camera::Wait::Frame:
            break;
        }
        const V4L2Camera::StreamFormat& format = camera->format();
        sample.time = clock.timeOf(frame.timestamp, platform::MonotonicSeconds());
        sample.frameRate = format.interval.framesPerSecond();
        if (IsMjpeg(format.fourcc))
            sample.jpeg.assign(frame.data, frame.data + frame.bytesUsed);
        sample.video = IsMjpeg(format.fourcc)      ? Decode(frame)
                       : separatePlanes != nullptr ? Join(frame)
                                                   : Wrap(frame);
        if (sample.video != nullptr)
            sample.video->fieldOrder = fieldOrder;
        // A frame that cannot be used (damaged JPEG, short buffer) is skipped, not an error.
        return sample.video != nullptr ? Result::Sample : Result::Timeout;
    }

private:
    CVPixelBufferRef Wrap(V4L2Frame& frame) {
        const V4L2Camera::StreamFormat& format = camera->format();
        PixelFormatLayout layout;
        if (!GetPixelFormatLayout(pixelFormat, format.width, format.height, 1, layout) ||
            frame.bytesUsed < format.bytesPerLine * format.height) {
            frame.requeue();
            return nullptr;
        }
        auto* held = new V4L2Frame(std::move(frame));
        CVPixelBufferRef buffer = nullptr;
        if (CVPixelBufferCreateWithBytes(
                nullptr, format.width, format.height, pixelFormat, const_cast<uint8_t*>(held->data),
                format.bytesPerLine, RequeueFrame, held, nullptr, &buffer) != kCVReturnSuccess) {
            RequeueFrame(held, nullptr);
            return nullptr;
        }
        buffer->colour = colour;
        return buffer;
    }

    // Planes in separate buffers become one picture, the driver's buffer going back at once.
    CVPixelBufferRef Join(V4L2Frame& frame) {
        CVPixelBufferRef picture =
            V4L2JoinPlanes(frame, camera->format(), *separatePlanes, *joinedPictures);
        frame.requeue();
        if (picture != nullptr)
            picture->colour = colour;
        return picture;
    }

    CVPixelBufferRef Decode(V4L2Frame& frame) {
        CVPixelBufferRef picture = decoder.Decode(frame.data, frame.bytesUsed, decodedFormat);
        frame.requeue();
        return picture;
    }

    std::unique_ptr<V4L2Camera> camera;
    OSType pixelFormat;    // of the driver's frames, for wrapped buffers
    YCbCrColour colour;    // of the driver's frames, as it reports them
    FieldOrder fieldOrder; // of the driver's frames
    OSType decodedFormat;  // of Motion-JPEG pictures
    MjpegDecoder decoder;
    const V4L2SeparatePlanes* separatePlanes = nullptr; // when the format's planes are apart
    CVPixelBufferPool* joinedPictures = nullptr;        // for those planes joined
    V4L2FrameClock clock;                               // the frames' times
    std::string deviceId;                               // the device's unique id
    bool failed = false;                                // see Fail()
};

class V4L2Device : public platform::BackendDevice {
public:
    explicit V4L2Device(V4L2DeviceInfo info) : info(std::move(info)) {}

    platform::DeviceInfo Info() const override {
        platform::DeviceInfo result;
        result.uniqueId = info.uniqueId;
        result.displayName = info.displayName;
        result.hasVideo = true;
        result.identity = info.path;
        return result;
    }

    bool IsConnected() override {
        return !V4L2FindNode(info.uniqueId).empty() && !V4L2StreamFailed(info.uniqueId);
    }

    bool IsInUseByAnotherApplication() override {
        const std::string node = V4L2FindNode(info.uniqueId);
        return !node.empty() && V4L2IsInUse(node);
    }

    // The node is opened for each stream; opening the device only checks that it is there.
    bool Open() override { return IsConnected(); }
    void Close() override {}

    std::vector<platform::DeviceFormat> Formats() override {
        std::vector<platform::DeviceFormat> formats;
        for (const V4L2Format& format : info.formats) {
            const OSType pixelFormat = PlatformFormatOf(format.fourcc);
            if (pixelFormat == 0)
                continue;
            // NV12 and NV12M (ABGR32 and XBGR32...) reach the host as one format.
            if (!IsMjpeg(format.fourcc) && WantedFourcc(info.formats, pixelFormat) != format.fourcc)
                continue;
            for (const V4L2FrameSize& size : format.sizes) {
                platform::DeviceFormat entry;
                entry.kind = platform::MediaKind::Video;
                entry.formatType = pixelFormat;
                entry.width = size.width;
                entry.height = size.height;
                entry.frameRate = V4L2FastestInterval(size).framesPerSecond();
                entry.rates = V4L2RatesOf(size);
                formats.push_back(entry);
            }
        }
        return formats;
    }

    std::unique_ptr<platform::DeviceStream>
    StartStream(const platform::StreamRequest& request) override {
        const std::string node = V4L2FindNode(info.uniqueId);
        if (node.empty())
            return nullptr;
        const V4L2Format* format = nullptr;
        V4L2FrameSize size;
        if (!Choose(request, format, size))
            return nullptr;
        auto camera = std::make_unique<V4L2Camera>();
        if (camera->open(node) != V4L2Camera::Status::Ok)
            return nullptr;
        // A node with several inputs captures from this device's; an analogue input is set to
        // the standard of the chosen size and asked for both fields woven into one picture.
        const uint64_t standards = info.input.standards;
        if (info.selectsInput &&
            camera->selectInput(info.input.index, V4L2StandardForHeight(standards, size.height)) !=
                V4L2Camera::Status::Ok)
            return nullptr;
        if (camera->setFormat(format->fourcc, size.width, size.height,
                              V4L2IntervalFor(size, request.framesPerSecond),
                              standards != 0 ? V4L2_FIELD_INTERLACED : V4L2_FIELD_ANY) !=
            V4L2Camera::Status::Ok)
            return nullptr;
        // The driver has the last word on the format.
        const OSType delivered = PlatformFormatOf(camera->format().fourcc);
        if (delivered == 0 || !DeliversWholeFrames(camera->format().field))
            return nullptr;
        const V4L2Camera::Status started = camera->start(kStreamBuffers);
        if (started == V4L2Camera::Status::Busy || started == V4L2Camera::Status::Gone)
            return nullptr;
        auto stream = std::make_unique<V4L2Stream>(std::move(camera), delivered,
                                                   request.pixelFormat, info.uniqueId);
        if (started != V4L2Camera::Status::Ok)
            stream->Fail();
        return stream;
    }

    bool StreamFormatFor(const platform::StreamRequest& request,
                         platform::DeviceFormat& result) override {
        const V4L2Format* format = nullptr;
        V4L2FrameSize size;
        if (!Choose(request, format, size))
            return false;
        result = platform::DeviceFormat();
        result.formatType = PlatformFormatOf(format->fourcc);
        result.width = size.width;
        result.height = size.height;
        result.frameRate = V4L2FastestInterval(size).framesPerSecond();
        result.rates = V4L2RatesOf(size);
        return true;
    }

    std::vector<platform::DeviceControl> Controls() override {
        std::vector<platform::DeviceControl> controls;
        const V4L2ControlTarget target = ControlTarget();
        if (!target.node.empty())
            V4L2ListControls(target, controls);
        return controls;
    }

    platform::ControlResult SetControl(const platform::DeviceControl& control, int64_t value,
                                       const std::string& text, platform::DeviceControl& after,
                                       std::string& reason) override {
        const V4L2ControlTarget target = ControlTarget();
        if (target.node.empty()) {
            after = control;
            reason = "The device is gone.";
            return platform::ControlResult::Failed;
        }
        return V4L2SetControl(target, control, value, text, after, reason);
    }

    bool WatchControls(platform::ControlChangeListener listener) override {
        std::lock_guard<std::mutex> locked(watching);
        if (!listener) {
            watcher.stop();
            return true;
        }
        const V4L2ControlTarget target = ControlTarget();
        std::vector<platform::DeviceControl> controls;
        return !target.node.empty() && V4L2ListControls(target, controls) &&
               watcher.start(target, controls, std::move(listener));
    }

private:
    // Where this device's controls are: its node as now numbered, and its input.
    V4L2ControlTarget ControlTarget() const {
        V4L2ControlTarget target;
        target.node = V4L2FindNode(info.uniqueId);
        target.selectsInput = info.selectsInput;
        target.input = info.input.index;
        return target;
    }

    // The driver format and size a stream takes for `request`; false when none can be used.
    bool Choose(const platform::StreamRequest& request, const V4L2Format*& format,
                V4L2FrameSize& size) const {
        const uint32_t width =
            request.width != 0 ? static_cast<uint32_t>(request.width) : kDefaultWidth;
        const uint32_t height =
            request.height != 0 ? static_cast<uint32_t>(request.height) : kDefaultHeight;
        // A format is picked for reaching the wished rate at the size, or kWantedRate.
        const double rate = request.framesPerSecond > 0 ? request.framesPerSecond : kWantedRate;
        format = V4L2ChooseFormat(info.formats, WantedFourcc(info.formats, request.pixelFormat),
                                  width, height, rate,
                                  [](uint32_t fourcc) { return PlatformFormatOf(fourcc) != 0; });
        if (format == nullptr)
            return false;
        size = V4L2NearestSize(*format, width, height);
        return true;
    }

    V4L2DeviceInfo info;
    std::mutex watching; // orders starting and stopping the watcher
    V4L2ControlWatcher watcher;
};

class V4L2Backend : public platform::DeviceBackend {
public:
    explicit V4L2Backend(std::string folder) : folder(std::move(folder)) {}
    const char* Name() const override { return "v4l2"; }

    // Every look-up of a device by name lists the devices; a camera's formats (a few hundred
    // ioctls) are asked once per camera and kept, since they do not change while it is there.
    std::vector<std::shared_ptr<platform::BackendDevice>> Enumerate() override {
        std::vector<std::shared_ptr<platform::BackendDevice>> devices;
        std::lock_guard<std::mutex> locked(mutex);
        for (V4L2DeviceInfo& info : V4L2ListDevices(folder, false)) {
            auto known = formats.find(info.uniqueId);
            if (known == formats.end()) {
                // A device whose formats cannot be read now (its node streams another input)
                // is listed without them and asked again next time.
                if (!V4L2QueryFormats(info)) {
                    devices.push_back(std::make_shared<V4L2Device>(std::move(info)));
                    continue;
                }
                known = formats.emplace(info.uniqueId, info.formats).first;
            }
            info.formats = known->second;
            devices.push_back(std::make_shared<V4L2Device>(std::move(info)));
        }
        return devices;
    }

private:
    std::string folder;
    std::mutex mutex;
    std::map<std::string, std::vector<V4L2Format>> formats; // by unique id
};

} // namespace

platform::DeviceBackend* V4L2DeviceBackend() {
    static V4L2Backend backend("/dev");
    return &backend;
}
