// The small interface every device backend implements (virtual test devices, V4L2 cameras, ALSA
// sound inputs). A backend finds its devices, opens and closes them and streams samples; it
// never converts pixels or applies policy: the capture core does that.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/coreaudio.h"
#include "platform/corevideo.h"

namespace platform {

enum class MediaKind { Video, Sound, Muxed };

// One format a device offers: what its format descriptions say.
struct DeviceFormat {
    MediaKind kind = MediaKind::Video;
    OSType formatType = 0; // pixel format for video, 'lpcm' for sound, 'dvc ' for muxed DV
    size_t width = 0, height = 0;
    double frameRate = 0;
    AudioStreamBasicDescription audio{}; // for sound
};

struct DeviceInfo {
    std::string uniqueId;    // stable across runs
    std::string displayName; // UTF-8
    bool hasVideo = false;
    bool hasSound = false;
    bool isMuxed = false; // pictures and sound in one stream, as a DV deck
};

// A tape deck's transport: speed 10000 is normal forward play, negative runs backwards;
// playback mode 1 while playing, 0 otherwise.
struct TransportState {
    long speed = 0;
    unsigned long playbackMode = 0;
};

// What the outputs want of a stream; 0 leaves the choice to the device.
struct StreamRequest {
    OSType pixelFormat = 0;
    size_t width = 0, height = 0;
};

// One sample read from a stream: a picture, sound, or both (a muxed device).
struct CapturedSample {
    CVPixelBufferRef video = nullptr;       // one reference owned by the sample's reader
    const AudioBufferList* audio = nullptr; // valid until the next Read
    AudioStreamBasicDescription audioFormat{};
    double time = 0;      // presentation time, seconds on the monotonic clock
    double frameRate = 0; // nominal, for pictures
    bool hasTimecode = false;
    SMPTETime timecode{};
};

class DeviceStream {
public:
    enum class Result { Sample, Timeout, Gone };
    virtual ~DeviceStream() = default;
    // Waits up to timeoutMs for the next sample. Gone when the device vanished: the stream
    // delivers nothing more.
    virtual Result Read(int timeoutMs, CapturedSample& sample) = 0;
};

class BackendDevice {
public:
    virtual ~BackendDevice() = default;
    virtual DeviceInfo Info() const = 0;
    virtual bool IsConnected() = 0;
    virtual bool IsInUseByAnotherApplication() = 0;
    // False when the device refuses to open (gone, busy).
    virtual bool Open() = 0;
    virtual void Close() = 0;
    virtual std::vector<DeviceFormat> Formats() = 0;
    virtual bool HasTransport() { return false; }
    virtual TransportState GetTransport() { return TransportState(); }
    virtual void SetTransport(const TransportState&) {}
    // Starts streaming as close to the request as the device can; null when it cannot. One
    // stream at a time per device.
    virtual std::unique_ptr<DeviceStream> StartStream(const StreamRequest& request) = 0;
};

class DeviceBackend {
public:
    virtual ~DeviceBackend() = default;
    virtual const char* Name() const = 0;
    // The devices present now, in a stable order. The same device may come back as a new
    // object; the capture core keys devices by their unique id.
    virtual std::vector<std::shared_ptr<BackendDevice>> Enumerate() = 0;
};

// The backends, real devices first and the virtual test devices last.
const std::vector<DeviceBackend*>& DeviceBackends();

// The monotonic clock in seconds, the time base of every sample.
double MonotonicSeconds();

} // namespace platform
