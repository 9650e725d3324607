// The small interface every device backend implements (virtual test devices, V4L2 cameras, ALSA
// sound inputs). A backend finds its devices, opens and closes them and streams samples; it
// never converts pixels or applies policy: the capture core does that.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/coreaudio.h"
#include "platform/devicecontrols.h"
#include "platform/corevideo.h"

namespace platform {

enum class MediaKind { Video, Sound, Muxed };

// The time between two pictures in seconds, exactly: 1/30, or 1001/30000 for 29.97 frames per
// second. Devices count rates this way (V4L2 does), so a rate such as 29.97 survives unrounded.
struct FrameInterval {
    uint32_t numerator = 0, denominator = 0;
    bool IsEmpty() const { return numerator == 0 || denominator == 0; }
    // Frames per second; 0 for an empty interval.
    double FramesPerSecond() const { return IsEmpty() ? 0 : double(denominator) / numerator; }
    bool operator==(const FrameInterval& other) const {
        return uint64_t(numerator) * other.denominator == uint64_t(other.numerator) * denominator;
    }
};

// The interval of a rate given as frames per second: exact for whole rates and for the NTSC
// family (29.97 is 1001/30000), to a thousandth of a frame per second otherwise. Empty for a
// rate that is not positive or not finite, or beyond 1000 frames per second.
FrameInterval IntervalForRate(double framesPerSecond);

// The rates a device offers at one format and size. A single rate when `slowest` is empty or
// equal to `fastest`; a range otherwise: every interval from `fastest` (the shortest) to
// `slowest`, in steps of `step` counted from `fastest` (an empty step: any interval between).
// Ranges step in time per frame, as drivers state them, not in frames per second.
struct FrameRates {
    FrameInterval fastest, slowest, step;
    bool IsRange() const { return !slowest.IsEmpty() && !(slowest == fastest); }
};

// The offered interval nearest to `framesPerSecond` (compared in frames per second): a single
// rate as it is offered, a range's nearest step. 0 asks for the fastest rate offered. Empty when
// nothing is offered.
FrameInterval NearestOfferedInterval(const std::vector<FrameRates>& offered,
                                     double framesPerSecond);

// One format a device offers: what its format descriptions say.
struct DeviceFormat {
    MediaKind kind = MediaKind::Video;
    OSType formatType = 0; // pixel format for video, 'lpcm' for sound, 'dvc ' for muxed DV
    size_t width = 0, height = 0;
    double frameRate = 0;                // the rate a stream runs at unless asked for another
    std::vector<FrameRates> rates;       // every rate offered at this format and size; may be empty
    AudioStreamBasicDescription audio{}; // for sound
};

struct DeviceInfo {
    std::string uniqueId;    // stable across runs
    std::string displayName; // UTF-8
    bool hasVideo = false;
    bool hasSound = false;
    bool isMuxed = false; // pictures and sound in one stream, as a DV deck
    // The hardware the device reaches, named alike by every backend that reaches it: a
    // camera's device node ("/dev/video0"), a sound card's PCM as card and device numbers
    // ("alsa:1,0"). Empty when it has none (a virtual device, ALSA's default device).
    std::string identity;
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
    double framesPerSecond = 0; // the offered rate nearest to it is used
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
    // The camera's own JPEG picture that video was decoded from (a Motion-JPEG stream), so a
    // recording can store it as it came; empty otherwise.
    std::vector<uint8_t> jpeg;
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
    // The video format and size StartStream would stream in for `request`, with the rates
    // offered there; false for a device without pictures or one that does not say.
    virtual bool StreamFormatFor(const StreamRequest&, DeviceFormat&) { return false; }

    // The device's controls with their current values, in the device's order; none for a
    // device without controls. The device need not be open. Any thread, also while streaming.
    virtual std::vector<DeviceControl> Controls() { return {}; }
    // Sets `control` (as Controls listed it) to `value`, already brought into its range by the
    // caller, or a string control to `text`. `after` receives the control as it is afterwards
    // (the value the device took), `reason` a sentence a host can show when it failed. Any
    // thread, also while streaming: a running stream shows the change from its next picture.
    virtual ControlResult SetControl(const DeviceControl& control, int64_t value,
                                     const std::string& text, DeviceControl& after,
                                     std::string& reason) {
        (void)control, (void)value, (void)text, (void)after;
        reason = "the device has no controls";
        return ControlResult::UnknownKey;
    }
    // Starts telling `listener` of every change of a control's value or flags the device
    // reports, one call at a time on a thread of the backend's; an empty listener stops, and
    // returns once no call runs (unless made from inside the listener). False when the device
    // cannot report changes.
    virtual bool WatchControls(ControlChangeListener listener) {
        (void)listener;
        return false;
    }
};

class DeviceBackend {
public:
    virtual ~DeviceBackend() = default;
    virtual const char* Name() const = 0;
    // The devices present now, in a stable order. The same device may come back as a new
    // object; the capture core keys devices by their unique id.
    virtual std::vector<std::shared_ptr<BackendDevice>> Enumerate() = 0;
    // Why the last Enumerate could not list devices it should have (the camera portal is
    // missing or refused access), as a sentence a host can show; empty when nothing was wrong.
    virtual std::string Problem() { return {}; }
};

// The backends that list devices, in their order: those TAVIX_BACKENDS names (a comma list of
// v4l2, pipewire, alsa, virtual), else all of them in that order. Read once per process.
const std::vector<DeviceBackend*>& DeviceBackends();

// The backends `names` (a comma list as TAVIX_BACKENDS takes it) picks from `all`, in its order;
// all of them for a null or empty list. Unknown names are skipped.
std::vector<DeviceBackend*> SelectBackends(const char* names,
                                           const std::vector<DeviceBackend*>& all);

// One device of a listing, with the backend that listed it.
struct ListedDevice {
    DeviceBackend* backend = nullptr;
    std::shared_ptr<BackendDevice> device;
    DeviceInfo info;
};

// The devices `backends` list, in order, each device once: a device whose identity an earlier
// backend's device has too (a camera both V4L2 and PipeWire reach) is left to that backend.
std::vector<ListedDevice> ListDevices(const std::vector<DeviceBackend*>& backends);

// The problems the backends' last listings reported, one sentence after another; empty when
// there were none.
std::string DeviceListProblem();

// The monotonic clock in seconds, the time base of every sample.
double MonotonicSeconds();

} // namespace platform
