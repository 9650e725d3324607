#include "platform/devices/v4l2/v4l2camera.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <map>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/devices/v4l2/v4l2planes.h"

int V4L2Ioctl(int fd, unsigned long request, void* argument) {
    int result;
    do {
        result = ioctl(fd, request, argument);
    } while (result == -1 && errno == EINTR);
    return result;
}

namespace {

constexpr auto Ioctl = V4L2Ioctl;

// Sizes offered inside a stepwise or continuous range, besides the range's largest size.
const uint32_t kCommonSizes[][2] = {{160, 120},  {320, 180},  {320, 240},   {352, 288},
                                    {640, 360},  {640, 480},  {800, 600},   {1024, 768},
                                    {1280, 720}, {1280, 960}, {1920, 1080}, {3840, 2160}};

std::string TextOf(const uint8_t* text, size_t size) {
    return std::string(reinterpret_cast<const char*>(text), strnlen((const char*)text, size));
}

// The node's index among its device's nodes, from sysfs; 0 when it cannot be read.
unsigned NodeIndex(const std::string& path) {
    std::string name = path.substr(path.rfind('/') + 1);
    std::string file = "/sys/class/video4linux/" + name + "/index";
    unsigned index = 0;
    if (FILE* f = fopen(file.c_str(), "re")) {
        if (fscanf(f, "%u", &index) != 1)
            index = 0;
        fclose(f);
    }
    return index;
}

// Reads the intervals offered at `size` into it.
void EnumerateIntervals(int fd, uint32_t fourcc, V4L2FrameSize& size) {
    v4l2_frmivalenum query{};
    query.pixel_format = fourcc;
    query.width = size.width;
    query.height = size.height;
    for (query.index = 0; Ioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &query) == 0; ++query.index) {
        if (query.type == V4L2_FRMIVAL_TYPE_DISCRETE) {
            if (query.discrete.numerator && query.discrete.denominator)
                size.intervals.push_back({query.discrete.numerator, query.discrete.denominator});
            continue;
        }
        // A range: its two ends, and its step unless any interval between goes.
        const v4l2_fract& fastest = query.stepwise.min;
        const v4l2_fract& slowest = query.stepwise.max;
        const v4l2_fract& step = query.stepwise.step;
        if (fastest.numerator && fastest.denominator)
            size.intervals.push_back({fastest.numerator, fastest.denominator});
        if (slowest.numerator && slowest.denominator)
            size.intervals.push_back({slowest.numerator, slowest.denominator});
        size.intervalRange = size.intervals.size() == 2;
        if (size.intervalRange && query.type == V4L2_FRMIVAL_TYPE_STEPWISE && step.numerator &&
            step.denominator)
            size.step = {step.numerator, step.denominator};
        break;
    }
    std::sort(size.intervals.begin(), size.intervals.end(),
              [](const V4L2Fraction& a, const V4L2Fraction& b) {
                  return a.framesPerSecond() > b.framesPerSecond();
              });
}

std::vector<V4L2FrameSize> EnumerateSizes(int fd, uint32_t fourcc) {
    std::vector<V4L2FrameSize> sizes;
    v4l2_frmsizeenum query{};
    query.pixel_format = fourcc;
    for (query.index = 0; Ioctl(fd, VIDIOC_ENUM_FRAMESIZES, &query) == 0; ++query.index) {
        if (query.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            sizes.push_back({query.discrete.width, query.discrete.height, {}});
            continue;
        }
        const v4l2_frmsize_stepwise& range = query.stepwise;
        for (const auto& common : kCommonSizes) {
            uint32_t w = common[0], h = common[1];
            bool inside = w >= range.min_width && w < range.max_width && h >= range.min_height &&
                          h < range.max_height;
            bool onStep =
                (range.step_width == 0 || (w - range.min_width) % range.step_width == 0) &&
                (range.step_height == 0 || (h - range.min_height) % range.step_height == 0);
            if (inside && onStep)
                sizes.push_back({w, h, {}});
        }
        sizes.push_back({range.max_width, range.max_height, {}});
        break;
    }
    for (V4L2FrameSize& size : sizes)
        EnumerateIntervals(fd, fourcc, size);
    std::stable_sort(sizes.begin(), sizes.end(),
                     [](const V4L2FrameSize& a, const V4L2FrameSize& b) {
                         return uint64_t(a.width) * a.height > uint64_t(b.width) * b.height;
                     });
    return sizes;
}

// Node number of a "videoN" name, or -1 when the name is not one.
int VideoNodeNumber(const char* name) {
    if (strncmp(name, "video", 5) != 0 || name[5] == 0)
        return -1;
    int number = 0;
    for (const char* p = name + 5; *p; ++p) {
        if (*p < '0' || *p > '9' || number > 100000)
            return -1;
        number = number * 10 + (*p - '0');
    }
    return number;
}

} // namespace

std::vector<V4L2Format> V4L2EnumerateFormats(int fd, bool multiplanar) {
    std::vector<V4L2Format> formats;
    v4l2_fmtdesc query{};
    query.type = multiplanar ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (query.index = 0; Ioctl(fd, VIDIOC_ENUM_FMT, &query) == 0; ++query.index) {
        V4L2Format format;
        format.fourcc = query.pixelformat;
        format.compressed = (query.flags & V4L2_FMT_FLAG_COMPRESSED) != 0;
        format.description = TextOf(query.description, sizeof query.description);
        format.sizes = EnumerateSizes(fd, query.pixelformat);
        formats.push_back(std::move(format));
    }
    return formats;
}

namespace {

// The node's capability flags: a node of a multi-node device (a webcam's metadata node, say)
// reports its own in device_caps; the card-wide ones are in capabilities.
uint32_t NodeCapabilities(const v4l2_capability& caps) {
    return (caps.capabilities & V4L2_CAP_DEVICE_CAPS) ? caps.device_caps : caps.capabilities;
}

std::vector<V4L2Input> EnumerateInputs(int fd) {
    std::vector<V4L2Input> inputs;
    v4l2_input query{};
    for (query.index = 0; query.index < 64 && Ioctl(fd, VIDIOC_ENUMINPUT, &query) == 0;
         ++query.index) {
        V4L2Input input;
        input.index = query.index;
        input.name = TextOf(query.name, sizeof query.name);
        input.standards = query.std;
        input.dvTimings = (query.capabilities & V4L2_IN_CAP_DV_TIMINGS) != 0;
        inputs.push_back(std::move(input));
    }
    return inputs;
}

// The full-frame sizes of the standards an analogue input takes, PAL and SECAM before NTSC.
std::vector<V4L2FrameSize> StandardSizes(uint64_t standards) {
    std::vector<V4L2FrameSize> sizes;
    if (standards & V4L2_STD_625_50)
        sizes.push_back({720, 576, {{1, 25}}});
    if (standards & V4L2_STD_525_60)
        sizes.push_back({720, 480, {{1001, 30000}}});
    return sizes;
}

// The size and rate of the signal on a digital input; false when there is no signal.
bool SignalSize(int fd, V4L2FrameSize& size) {
    v4l2_dv_timings timings{};
    if (Ioctl(fd, VIDIOC_G_DV_TIMINGS, &timings) == -1 || timings.type != V4L2_DV_BT_656_1120)
        return false;
    const v4l2_bt_timings& bt = timings.bt;
    if (bt.width == 0 || bt.height == 0)
        return false;
    size = {bt.width, bt.height, {}};
    // A frame lasts its total pixels (blanking included) at the pixel clock.
    const uint64_t total = uint64_t(V4L2_DV_BT_FRAME_WIDTH(&bt)) * V4L2_DV_BT_FRAME_HEIGHT(&bt);
    if (total != 0 && total <= UINT32_MAX && bt.pixelclock != 0 && bt.pixelclock <= UINT32_MAX)
        size.intervals.push_back({uint32_t(total), uint32_t(bt.pixelclock)});
    return true;
}

// The formats of the input selected now: analogue inputs get their standards' sizes, digital
// ones their signal's, in place of the scaler's range the driver enumerates.
std::vector<V4L2Format> InputFormats(int fd, const V4L2DeviceInfo& device) {
    std::vector<V4L2Format> formats = V4L2EnumerateFormats(fd, device.multiplanar);
    std::vector<V4L2FrameSize> sizes;
    if (device.input.standards != 0)
        sizes = StandardSizes(device.input.standards);
    else if (V4L2FrameSize signal; device.input.dvTimings && SignalSize(fd, signal))
        sizes.push_back(signal);
    if (!sizes.empty())
        for (V4L2Format& format : formats)
            format.sizes = sizes;
    return formats;
}

// Reads the formats of `device` on an open node, selecting its input meanwhile.
bool ReadFormats(int fd, V4L2DeviceInfo& device) {
    int previous = -1;
    if (device.selectsInput) {
        int wanted = static_cast<int>(device.input.index);
        if (Ioctl(fd, VIDIOC_G_INPUT, &previous) == -1)
            previous = -1;
        if (previous != wanted && Ioctl(fd, VIDIOC_S_INPUT, &wanted) == -1)
            return false; // streaming elsewhere: the input cannot change now
    }
    device.formats = InputFormats(fd, device);
    if (device.selectsInput && previous >= 0 && previous != static_cast<int>(device.input.index))
        Ioctl(fd, VIDIOC_S_INPUT, &previous);
    return true;
}

} // namespace

std::vector<V4L2DeviceInfo> V4L2QueryNode(const std::string& path, bool withFormats) {
    std::vector<V4L2DeviceInfo> devices;
    int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return devices;
    v4l2_capability caps{};
    const uint32_t nodeCaps = Ioctl(fd, VIDIOC_QUERYCAP, &caps) == 0 ? NodeCapabilities(caps) : 0;
    if (V4L2CaptureType(nodeCaps) == 0 || !(nodeCaps & V4L2_CAP_STREAMING)) {
        ::close(fd);
        return devices;
    }
    V4L2DeviceInfo node;
    node.path = path;
    node.multiplanar = V4L2IsMultiplanar(V4L2CaptureType(nodeCaps));
    node.card = TextOf(caps.card, sizeof caps.card);
    node.driver = TextOf(caps.driver, sizeof caps.driver);
    node.busInfo = TextOf(caps.bus_info, sizeof caps.bus_info);
    node.nodeIndex = NodeIndex(path);
    // Bus info names the port a device is plugged into, so it survives reboots and renumbered
    // nodes; the index tells apart the capture nodes of one device, the input its connectors.
    const std::string where = node.busInfo.empty() ? node.card : node.busInfo;
    node.uniqueId = "v4l2:" + node.driver + ":" + where + ":" + std::to_string(node.nodeIndex);
    std::vector<V4L2Input> inputs = EnumerateInputs(fd);
    if (inputs.size() <= 1) {
        if (inputs.size() == 1)
            node.input = inputs.front();
        devices.push_back(std::move(node));
    } else {
        for (V4L2Input& input : inputs) {
            V4L2DeviceInfo device = node;
            device.uniqueId += ":input" + std::to_string(input.index);
            device.input = std::move(input);
            device.selectsInput = true;
            devices.push_back(std::move(device));
        }
    }
    if (withFormats)
        for (V4L2DeviceInfo& device : devices)
            ReadFormats(fd, device);
    ::close(fd);
    return devices;
}

bool V4L2QueryFormats(V4L2DeviceInfo& device) {
    int fd = ::open(device.path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool read = ReadFormats(fd, device);
    ::close(fd);
    return read;
}

void V4L2AssignDisplayNames(std::vector<V4L2DeviceInfo>& devices) {
    std::map<std::string, int> seen;
    const V4L2DeviceInfo* previous = nullptr;
    std::string nodeName;
    for (V4L2DeviceInfo& device : devices) {
        // The inputs of one node share its name; the " (2)" goes to the node.
        const bool sameNode = previous != nullptr && device.selectsInput &&
                              previous->selectsInput && previous->path == device.path &&
                              !device.path.empty();
        if (!sameNode) {
            std::string name = device.card.empty() ? device.path : device.card;
            int count = ++seen[name];
            nodeName = count == 1 ? name : name + " (" + std::to_string(count) + ")";
        }
        device.displayName = device.selectsInput ? nodeName + ": " + device.input.name : nodeName;
        previous = &device;
    }
}

uint64_t V4L2StandardForHeight(uint64_t standards, uint32_t height) {
    const bool lines525 = height <= 480;
    for (uint64_t preferred :
         {lines525 ? V4L2_STD_NTSC : V4L2_STD_PAL, lines525 ? V4L2_STD_525_60 : V4L2_STD_625_50,
          lines525 ? V4L2_STD_625_50 : V4L2_STD_525_60})
        if (standards & preferred)
            return standards & preferred;
    return standards;
}

std::vector<V4L2DeviceInfo> V4L2ListDevices(const std::string& folder, bool withFormats) {
    std::vector<std::pair<int, std::string>> nodes;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            int number = VideoNodeNumber(entry->d_name);
            if (number >= 0)
                nodes.push_back({number, folder + "/" + entry->d_name});
        }
        closedir(dir);
    }
    std::sort(nodes.begin(), nodes.end());
    std::vector<V4L2DeviceInfo> devices;
    for (const auto& node : nodes)
        for (V4L2DeviceInfo& device : V4L2QueryNode(node.second, withFormats))
            devices.push_back(std::move(device));
    V4L2AssignDisplayNames(devices);
    return devices;
}

std::string V4L2FindNode(const std::string& uniqueId, const std::string& folder) {
    for (const V4L2DeviceInfo& device : V4L2ListDevices(folder, false))
        if (device.uniqueId == uniqueId)
            return device.path;
    return std::string();
}

bool V4L2IsInUse(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return errno == EBUSY;
    // Asking for no buffers changes nothing on a free queue and is refused with EBUSY when
    // another file handle owns it.
    v4l2_capability caps{};
    uint32_t nodeCaps = 0;
    if (Ioctl(fd, VIDIOC_QUERYCAP, &caps) == 0)
        nodeCaps = NodeCapabilities(caps);
    v4l2_requestbuffers request{};
    request.count = 0;
    request.type = V4L2CaptureType(nodeCaps);
    request.memory = V4L2_MEMORY_MMAP;
    bool busy = request.type != 0 && Ioctl(fd, VIDIOC_REQBUFS, &request) == -1 && errno == EBUSY;
    ::close(fd);
    return busy;
}

void V4L2Frame::requeue() {
    if (pool)
        pool->requeue(index);
    pool.reset();
    data = nullptr;
    planeCount = 0;
}

V4L2BufferPool::~V4L2BufferPool() {
    for (const std::vector<Mapping>& planes : mappings)
        for (const Mapping& mapping : planes)
            if (mapping.start)
                munmap(mapping.start, mapping.length);
}

void V4L2BufferPool::requeue(uint32_t index) {
    std::lock_guard<std::mutex> hold(mutex);
    if (!streaming || index >= mappings.size())
        return;
    V4L2BufferSlot slot(type, planeCount, index);
    // A vanished device or a broken queue refuses every buffer, and the capture loop finds out
    // itself; a driver may also refuse one now and take it later.
    if (Ioctl(fd, VIDIOC_QBUF, &slot.buffer) == -1)
        refused.push_back(index);
}

void V4L2BufferPool::requeueRefused() {
    std::lock_guard<std::mutex> hold(mutex);
    if (!streaming || refused.empty())
        return;
    std::vector<uint32_t> again;
    for (uint32_t index : refused) {
        V4L2BufferSlot slot(type, planeCount, index);
        if (Ioctl(fd, VIDIOC_QBUF, &slot.buffer) == -1)
            again.push_back(index);
    }
    refused.swap(again);
}

V4L2Camera::Status V4L2Camera::statusFor(int error) {
    switch (error) {
    case EBUSY:
        return Status::Busy;
    case ENODEV:
    case ENXIO:
        gone = true;
        return Status::Gone;
    default:
        return Status::Failed;
    }
}

V4L2Camera::Status V4L2Camera::open(const std::string& path) {
    close();
    gone = false;
    current = StreamFormat();
    fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT ? (gone = true, Status::Gone) : statusFor(errno);
    // Nodes that cannot say what they are are taken as single-planar; their ioctls then fail.
    type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    v4l2_capability caps{};
    if (Ioctl(fd, VIDIOC_QUERYCAP, &caps) == 0) {
        if (uint32_t captureType = V4L2CaptureType(NodeCapabilities(caps)))
            type = captureType;
    }
    v4l2_format format{};
    format.type = type;
    if (Ioctl(fd, VIDIOC_G_FMT, &format) == 0)
        V4L2ReadFormat(format, current);
    return Status::Ok;
}

V4L2Camera::Status V4L2Camera::selectInput(uint32_t index, uint64_t standard) {
    if (fd < 0 || pool)
        return Status::Failed;
    int wanted = static_cast<int>(index);
    if (Ioctl(fd, VIDIOC_S_INPUT, &wanted) == -1)
        return statusFor(errno);
    current.standard = 0;
    if (standard != 0) {
        v4l2_std_id id = standard;
        if (Ioctl(fd, VIDIOC_S_STD, &id) == -1)
            return statusFor(errno);
        // The driver settles on one standard of the set.
        current.standard = Ioctl(fd, VIDIOC_G_STD, &id) == 0 ? id : standard;
    }
    v4l2_format format{};
    format.type = type;
    if (Ioctl(fd, VIDIOC_G_FMT, &format) == 0)
        V4L2ReadFormat(format, current);
    return Status::Ok;
}

bool V4L2Camera::isMultiplanar() const {
    return V4L2IsMultiplanar(type);
}

V4L2Camera::Status V4L2Camera::setFormat(uint32_t fourcc, uint32_t width, uint32_t height,
                                         V4L2Fraction interval, uint32_t field) {
    if (fd < 0 || pool)
        return Status::Failed;
    v4l2_format format = V4L2FormatRequest(type, fourcc, width, height, field);
    if (Ioctl(fd, VIDIOC_S_FMT, &format) == -1)
        return statusFor(errno);
    V4L2ReadFormat(format, current);
    current.interval = {};

    v4l2_streamparm parameters{};
    parameters.type = type;
    if (Ioctl(fd, VIDIOC_G_PARM, &parameters) == 0 &&
        (parameters.parm.capture.capability & V4L2_CAP_TIMEPERFRAME)) {
        if (interval.numerator && interval.denominator) {
            parameters.parm.capture.timeperframe = {interval.numerator, interval.denominator};
            // A refusal leaves the driver's rate, which is still a working rate. What it took
            // is read back: S_PARM's answer is not trusted to say it.
            Ioctl(fd, VIDIOC_S_PARM, &parameters);
            Ioctl(fd, VIDIOC_G_PARM, &parameters);
        }
        const v4l2_fract& agreed = parameters.parm.capture.timeperframe;
        current.interval = {agreed.numerator, agreed.denominator};
    }
    return Status::Ok;
}

V4L2Camera::Status V4L2Camera::start(unsigned bufferCount) {
    if (fd < 0 || pool)
        return Status::Failed;
    v4l2_requestbuffers request{};
    request.count = bufferCount;
    request.type = type;
    request.memory = V4L2_MEMORY_MMAP;
    if (Ioctl(fd, VIDIOC_REQBUFS, &request) == -1)
        return statusFor(errno);
    if (request.count < 2) {
        request.count = 0;
        Ioctl(fd, VIDIOC_REQBUFS, &request);
        return Status::Failed;
    }
    auto buffers = std::make_shared<V4L2BufferPool>(fd);
    buffers->type = type;
    buffers->planeCount = current.planeCount;
    // On failure the buffers are freed again; `buffers` unmaps what was mapped.
    auto fail = [&](int error) {
        Status status = statusFor(error);
        buffers.reset();
        request.count = 0;
        Ioctl(fd, VIDIOC_REQBUFS, &request);
        return status;
    };
    for (uint32_t index = 0; index < request.count; ++index) {
        V4L2BufferSlot slot(type, current.planeCount, index);
        if (Ioctl(fd, VIDIOC_QUERYBUF, &slot.buffer) == -1)
            return fail(errno);
        buffers->mappings.emplace_back();
        // A multiplanar buffer maps each memory plane on its own.
        for (unsigned plane = 0; plane < slot.planeCount(); ++plane) {
            void* start = mmap(nullptr, slot.length(plane), PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                               slot.offset(plane));
            if (start == MAP_FAILED)
                return fail(errno);
            buffers->mappings.back().push_back({start, slot.length(plane)});
        }
        if (Ioctl(fd, VIDIOC_QBUF, &slot.buffer) == -1)
            return fail(errno);
    }
    v4l2_buf_type streamType = v4l2_buf_type(type);
    if (Ioctl(fd, VIDIOC_STREAMON, &streamType) == -1)
        return fail(errno);
    buffers->streaming = true;
    pool = std::move(buffers);
    broken = false;
    damaged = 0;
    return Status::Ok;
}

V4L2Camera::Wait V4L2Camera::waitFrame(int timeoutMs, V4L2Frame& frame) {
    frame.requeue();
    if (gone)
        return Wait::Gone;
    if (fd < 0 || !pool || broken)
        return Wait::Failed;
    pool->requeueRefused();
    for (;;) {
        pollfd watch{fd, POLLIN, 0};
        int ready = poll(&watch, 1, timeoutMs);
        if (ready == -1 && errno == EINTR)
            continue;
        if (ready == -1)
            return Wait::Failed;
        if (ready == 0)
            return Wait::Timeout;
        // POLLERR and POLLHUP also come here: the dequeue below tells why.
        V4L2BufferSlot slot(type, current.planeCount);
        v4l2_buffer& buffer = slot.buffer;
        if (Ioctl(fd, VIDIOC_DQBUF, &buffer) == -1) {
            if (errno == EAGAIN)
                continue;
            if (errno == ENODEV || errno == ENXIO || (watch.revents & POLLHUP)) {
                gone = true;
                return Wait::Gone;
            }
            // EIO: the driver flagged its queue as failed; dequeueing fails from now on.
            broken = true;
            return Wait::Failed;
        }
        if (buffer.index >= pool->mappings.size() ||
            slot.planeCount() > pool->mappings[buffer.index].size())
            return Wait::Failed;
        if ((buffer.flags & V4L2_BUF_FLAG_ERROR) || slot.bytesUsed(0) == 0) {
            // The driver lost this frame; its time passes without one.
            ++damaged;
            pool->requeue(buffer.index);
            continue;
        }
        frame.pool = pool;
        frame.index = buffer.index;
        frame.planeCount = slot.planeCount();
        for (unsigned plane = 0; plane < frame.planeCount; ++plane) {
            const V4L2BufferPool::Mapping& mapping = pool->mappings[buffer.index][plane];
            const size_t offset = std::min<size_t>(slot.dataOffset(plane), mapping.length);
            frame.planes[plane].data = static_cast<const uint8_t*>(mapping.start) + offset;
            frame.planes[plane].bytesUsed =
                std::min<size_t>(slot.bytesUsed(plane), mapping.length - offset);
        }
        frame.data = frame.planes[0].data;
        frame.bytesUsed = frame.planes[0].bytesUsed;
        frame.sequence = buffer.sequence;
        frame.timestamp = buffer.timestamp.tv_sec + buffer.timestamp.tv_usec / 1e6;
        frame.hasTimecode = (buffer.flags & V4L2_BUF_FLAG_TIMECODE) != 0;
        if (frame.hasTimecode) {
            frame.hours = buffer.timecode.hours;
            frame.minutes = buffer.timecode.minutes;
            frame.seconds = buffer.timecode.seconds;
            frame.frames = buffer.timecode.frames;
            frame.timecodeType = buffer.timecode.type;
        }
        return Wait::Frame;
    }
}

void V4L2Camera::stop() {
    if (fd < 0)
        return;
    if (pool) {
        std::lock_guard<std::mutex> hold(pool->mutex);
        pool->streaming = false;
    }
    v4l2_buf_type streamType = v4l2_buf_type(type);
    Ioctl(fd, VIDIOC_STREAMOFF, &streamType);
    // Buffers still mapped by held frames are orphaned by the driver and freed when unmapped.
    v4l2_requestbuffers request{};
    request.type = type;
    request.memory = V4L2_MEMORY_MMAP;
    Ioctl(fd, VIDIOC_REQBUFS, &request);
    pool.reset();
}

void V4L2Camera::close() {
    stop();
    if (fd >= 0)
        ::close(fd);
    fd = -1;
}
