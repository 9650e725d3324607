// One V4L2 video capture node, read top to bottom as the life of a camera: query what it is and
// what it delivers, open it, negotiate a format, map its buffers, dequeue frames, stop, close.
// Everything here speaks V4L2 four-character codes; mapping them to the platform's pixel formats
// is the backend's business.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// ioctl, restarted when a signal interrupts it.
int V4L2Ioctl(int fd, unsigned long request, void* argument);

// The most planes a buffer has (VIDEO_MAX_PLANES).
constexpr unsigned kV4L2MaxPlanes = 8;

// A frame interval in seconds, numerator / denominator (1/30 is 30 frames per second).
struct V4L2Fraction {
    uint32_t numerator = 0;
    uint32_t denominator = 0;
    // Frames per second, or 0 for an empty fraction.
    double framesPerSecond() const {
        return numerator ? double(denominator) / double(numerator) : 0.0;
    }
};

// One frame size a format is offered in, with the frame intervals offered at that size.
struct V4L2FrameSize {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<V4L2Fraction> intervals; // shortest interval (fastest rate) first; may be empty
    // A driver offering a range rather than a list (stepwise, continuous): `intervals` holds the
    // range's two ends, and every interval between them in steps of `step` counted from the
    // shortest is offered too (an empty step for a continuous range: any interval).
    bool intervalRange = false;
    V4L2Fraction step = {};
};

// One pixel format of the driver's format enumeration.
struct V4L2Format {
    uint32_t fourcc = 0;              // V4L2_PIX_FMT_*
    bool compressed = false;          // V4L2_FMT_FLAG_COMPRESSED (MJPEG, H.264...)
    std::string description;          // the driver's text, e.g. "YUYV 4:2:2"
    std::vector<V4L2FrameSize> sizes; // largest first
};

// One input of a capture node: a capture card's composite, S-Video and HDMI connectors.
struct V4L2Input {
    uint32_t index = 0;
    std::string name;       // the driver's name for it, e.g. "S-Video 0"
    uint64_t standards = 0; // the analogue video standards it takes (v4l2_std_id); 0 for none
    bool dvTimings = false; // a digital input whose picture size follows its signal's timings
};

// What a capture device is, as enumeration reports it: a capture node, or one input of a node
// that has several (each input is a device of its own).
struct V4L2DeviceInfo {
    std::string path;         // "/dev/video0"
    std::string card;         // the driver's card name
    std::string driver;       // the driver's name ("uvcvideo", "vivid")
    std::string busInfo;      // where the device sits ("usb-0000:00:14.0-1"), stable across reboots
    unsigned nodeIndex = 0;   // the node's index among its device's nodes (sysfs "index")
    std::string uniqueId;     // built from bus info, node index and input: stable across reboots
    std::string displayName;  // "CARD" or "CARD: INPUT", made unique by V4L2AssignDisplayNames
    bool multiplanar = false; // streams through the multiplanar API (VIDEO_CAPTURE_MPLANE)
    V4L2Input input;          // the input captured from, when the node has several
    bool selectsInput = false;       // the node has several inputs: capturing selects `input`
    std::vector<V4L2Format> formats; // of `input` when it is selected
};

// The capture devices of the node at `path`: one per input when it has several, else the node
// itself; with their formats when `withFormats`. Empty when the node cannot be opened or is not
// a video capture node (single-planar or multiplanar) that can stream. Any thread.
std::vector<V4L2DeviceInfo> V4L2QueryNode(const std::string& path, bool withFormats = true);

// Reads the formats of `device` into it, selecting its input for the time it takes (and then
// the node's input before). Analogue inputs offer their standards' frame sizes (PAL and SECAM
// 720 x 576 at 25 frames per second, NTSC 720 x 480 at 29.97), digital ones the size and rate of
// their signal. False when the node is gone or another program holds it. Any thread.
bool V4L2QueryFormats(V4L2DeviceInfo& device);

// The video capture devices under `folder` ("/dev" on a real system), in node-number order and
// a node's inputs in its order, with display names and unique ids assigned. Nodes that vanish or
// refuse to open are left out. An empty list on a machine without cameras. Any thread.
std::vector<V4L2DeviceInfo> V4L2ListDevices(const std::string& folder = "/dev",
                                            bool withFormats = true);

// The node that currently carries the device with `uniqueId` (it may have been plugged back in
// under another number), or an empty string when the device is not there: unplugged, or
// unregistered by its driver. Any thread.
std::string V4L2FindNode(const std::string& uniqueId, const std::string& folder = "/dev");

// Gives every device a display name: its card name, followed by " (2)", " (3)"... for the second
// and later nodes carrying the same card name, in list order; then, for a node with several
// inputs, ": " and the input's name ("vivid: S-Video 0"). A node's devices are next to each
// other in the list.
void V4L2AssignDisplayNames(std::vector<V4L2DeviceInfo>& devices);

// The standards among `standards` that give pictures `height` lines high: the 525-line ones
// (NTSC) for 480 lines or fewer, otherwise the 625-line ones (PAL, SECAM); failing that, the
// other kind. Prefers NTSC and PAL proper to their variants.
uint64_t V4L2StandardForHeight(uint64_t standards, uint32_t height);

// The formats, sizes and intervals of an open node, from ENUM_FMT, ENUM_FRAMESIZES and
// ENUM_FRAMEINTERVALS. Stepwise and continuous size ranges are offered as the common sizes
// inside them plus their largest size; interval ranges are kept as ranges.
std::vector<V4L2Format> V4L2EnumerateFormats(int fd, bool multiplanar = false);

// True when another open file handle owns the node's buffer queue (another application is
// capturing from it). False when the node is free or cannot be opened.
bool V4L2IsInUse(const std::string& path);

class V4L2BufferPool;

// One plane of a dequeued frame.
struct V4L2Plane {
    const uint8_t* data = nullptr; // where the plane's data starts in its mapped buffer
    size_t bytesUsed = 0;          // bytes of frame data from there
};

// One dequeued frame. The memory stays mapped while any V4L2Frame or pool reference lives;
// requeue() hands the buffer back to the driver (once; later calls do nothing).
struct V4L2Frame {
    std::shared_ptr<V4L2BufferPool> pool; // keeps the mapping alive; empty when no frame is held
    uint32_t index = 0;                   // buffer index in the pool
    const uint8_t* data = nullptr;        // the first plane's data (a one-plane format's frame)
    size_t bytesUsed = 0;                 // bytes of frame data in it
    unsigned planeCount = 0;              // memory planes: 1, or more for NV12M, YUV420M...
    V4L2Plane planes[kV4L2MaxPlanes];
    uint32_t sequence = 0;    // the driver's frame counter
    double timestamp = 0;     // capture time, CLOCK_MONOTONIC seconds
    bool hasTimecode = false; // the driver supplied a SMPTE timecode
    uint8_t hours = 0, minutes = 0, seconds = 0, frames = 0; // the timecode, when present
    uint32_t timecodeType = 0;                               // V4L2_TC_TYPE_*
    void requeue();
};

// The memory-mapped buffers of one streaming run, shared by the camera and the frames in
// flight. Unmapped when the last holder lets go, so a frame held after the camera stopped (or
// vanished) still reads valid memory.
class V4L2BufferPool {
public:
    V4L2BufferPool(int fd) : fd(fd) {}
    ~V4L2BufferPool();
    V4L2BufferPool(const V4L2BufferPool&) = delete;
    V4L2BufferPool& operator=(const V4L2BufferPool&) = delete;

    // Hands buffer `index` back to the driver when the stream still runs; otherwise nothing.
    // A buffer the driver refuses is kept and offered again by the next waitFrame, so a passing
    // refusal does not cost the stream a buffer for good. Any thread.
    void requeue(uint32_t index);

private:
    friend class V4L2Camera;
    struct Mapping {
        void* start = nullptr;
        size_t length = 0;
    };
    std::mutex mutex;        // orders requeues against the end of streaming
    int fd;                  // the camera's descriptor, valid while `streaming`
    uint32_t type = 0;       // V4L2_BUF_TYPE_VIDEO_CAPTURE or its multiplanar kind
    unsigned planeCount = 1; // memory planes per buffer
    bool streaming = false;  // buffers may be queued
    std::vector<std::vector<Mapping>> mappings; // by buffer index, then plane
    std::vector<uint32_t> refused;              // buffers the driver refused to take back

    // Offers the refused buffers to the driver again.
    void requeueRefused();
};

// An open capture node. One thread drives it (open, format, start, waitFrame, stop, close);
// frames may be requeued from any thread.
class V4L2Camera {
public:
    enum class Status {
        Ok,
        Busy,   // another file handle owns the node (EBUSY)
        Gone,   // the device vanished (ENODEV)
        Failed, // anything else
    };
    enum class Wait { Frame, Timeout, Gone, Failed };

    // The format the driver agreed to.
    struct StreamFormat {
        uint32_t fourcc = 0;
        uint32_t width = 0;
        uint32_t height = 0;
        uint32_t bytesPerLine = 0; // of the first plane
        uint32_t imageSize = 0;    // of all planes
        uint32_t field = 0;        // V4L2_FIELD_*
        unsigned planeCount = 1;   // memory planes: more than one for NV12M, YUV420M...
        uint32_t planeBytesPerLine[kV4L2MaxPlanes] = {};
        uint32_t planeSize[kV4L2MaxPlanes] = {};
        V4L2Fraction interval;      // empty when the driver does not say
        uint32_t colorspace = 0;    // V4L2_COLORSPACE_*
        uint32_t ycbcrEncoding = 0; // V4L2_YCBCR_ENC_*, 0 for the colorspace's default
        uint32_t quantization = 0;  // V4L2_QUANTIZATION_*, 0 for the colorspace's default
        uint64_t standard = 0;      // the analogue standard selected, 0 for none
    };

    V4L2Camera() = default;
    ~V4L2Camera() { close(); }
    V4L2Camera(const V4L2Camera&) = delete;
    V4L2Camera& operator=(const V4L2Camera&) = delete;

    // Opens the node and learns whether it streams single-planar or multiplanar buffers.
    Status open(const std::string& path);

    // Selects the node's input `index` (VIDIOC_S_INPUT) and, for an analogue input, the video
    // standard (VIDIOC_S_STD; 0 leaves it); before setFormat, which they change.
    Status selectInput(uint32_t index, uint64_t standard);
    bool isOpen() const { return fd >= 0; }
    bool isMultiplanar() const;
    int descriptor() const { return fd; }

    // Asks for a format (S_FMT) with its field order (V4L2_FIELD_*, ANY for the driver's
    // choice) and, when `interval` is not empty and the driver supports it, a frame interval
    // (S_PARM). The driver may adjust all three; format() reports what it chose, the interval
    // as G_PARM reads it back afterwards.
    Status setFormat(uint32_t fourcc, uint32_t width, uint32_t height, V4L2Fraction interval,
                     uint32_t field = 0);
    const StreamFormat& format() const { return current; }

    // Requests and maps `bufferCount` buffers, queues them and starts streaming.
    Status start(unsigned bufferCount);
    bool isStreaming() const { return pool != nullptr; }

    // Waits up to `timeoutMs` for a frame and dequeues it into `frame`. Buffers the driver
    // marks as damaged or empty are handed back, counted and waited past. Gone once the device
    // vanished, Failed once the driver's queue broke (a fatal streaming error: nothing more
    // comes until streaming starts anew); either way later calls return the same at once.
    Wait waitFrame(int timeoutMs, V4L2Frame& frame);
    // Frames lost to damaged or empty buffers since start().
    uint64_t damagedFrames() const { return damaged; }

    // Stops streaming; frames still held stay readable until released. Safe when not streaming.
    void stop();
    void close();
    bool isGone() const { return gone; }

private:
    Status statusFor(int error);

    int fd = -1;
    uint32_t type = 0; // the node's capture buffer type, known once open
    bool gone = false;
    bool broken = false;  // the driver's queue failed while streaming
    uint64_t damaged = 0; // see damagedFrames()
    StreamFormat current;
    std::shared_ptr<V4L2BufferPool> pool; // set while streaming
};
