#include "plainv4l2.h"

#include "platform/devices/v4l2/v4l2planes.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

int Ioctl(int fd, unsigned long request, void* argument) {
    int result;
    do
        result = ioctl(fd, request, argument);
    while (result == -1 && errno == EINTR);
    return result;
}

double ThreadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

double Now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// The fastest interval the device lists for fourcc at this size; empty when it lists none.
v4l2_fract FastestInterval(const V4L2DeviceInfo& device, uint32_t fourcc, uint32_t width,
                           uint32_t height) {
    for (const V4L2Format& format : device.formats)
        if (format.fourcc == fourcc)
            for (const V4L2FrameSize& size : format.sizes)
                if (size.width == width && size.height == height && !size.intervals.empty())
                    return {size.intervals.front().numerator, size.intervals.front().denominator};
    return {0, 0};
}

} // namespace

PlainCaptureFigures RunPlainV4L2Loop(const V4L2DeviceInfo& device, uint32_t fourcc, uint32_t width,
                                     uint32_t height, double seconds, bool pollFirst) {
    PlainCaptureFigures figures;
    const int fd = open(device.path.c_str(), O_RDWR);
    if (fd < 0) {
        figures.error = "cannot open " + device.path;
        return figures;
    }
    const bool planes = device.multiplanar;
    const uint32_t type = planes ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE;
    std::vector<std::pair<void*, size_t>> maps;
    v4l2_requestbuffers request{};
    request.count = 4;
    request.type = type;
    request.memory = V4L2_MEMORY_MMAP;
    auto finish = [&](const char* error) {
        if (error != nullptr)
            figures.error = std::string(error) + ": " + strerror(errno);
        v4l2_buf_type streamType = v4l2_buf_type(type);
        Ioctl(fd, VIDIOC_STREAMOFF, &streamType);
        for (const auto& map : maps)
            munmap(map.first, map.second);
        request.count = 0;
        Ioctl(fd, VIDIOC_REQBUFS, &request);
        close(fd);
        return figures;
    };
    if (device.selectsInput) {
        int input = static_cast<int>(device.input.index);
        if (Ioctl(fd, VIDIOC_S_INPUT, &input) != 0)
            return finish("S_INPUT");
    }
    v4l2_format format = V4L2FormatRequest(type, fourcc, width, height, V4L2_FIELD_ANY);
    if (Ioctl(fd, VIDIOC_S_FMT, &format) != 0)
        return finish("S_FMT");
    const v4l2_fract interval = FastestInterval(device, fourcc, width, height);
    if (interval.denominator != 0) {
        v4l2_streamparm parameters{};
        parameters.type = type;
        parameters.parm.capture.timeperframe = interval;
        Ioctl(fd, VIDIOC_S_PARM, &parameters);
    }
    if (Ioctl(fd, VIDIOC_REQBUFS, &request) != 0)
        return finish("REQBUFS");
    for (uint32_t i = 0; i < request.count; ++i) {
        v4l2_plane plane[VIDEO_MAX_PLANES] = {};
        v4l2_buffer buffer{};
        buffer.type = type;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.index = i;
        buffer.m.planes = plane;
        buffer.length = planes ? VIDEO_MAX_PLANES : 0;
        if (Ioctl(fd, VIDIOC_QUERYBUF, &buffer) != 0)
            return finish("QUERYBUF");
        const unsigned count = planes ? buffer.length : 1;
        for (unsigned p = 0; p < count; ++p) {
            const size_t length = planes ? plane[p].length : buffer.length;
            const off_t offset = planes ? plane[p].m.mem_offset : buffer.m.offset;
            void* start = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
            if (start == MAP_FAILED)
                return finish("mmap");
            maps.push_back({start, length});
        }
        if (!planes)
            buffer.m.offset = 0;
        buffer.m.planes = plane;
        if (Ioctl(fd, VIDIOC_QBUF, &buffer) != 0)
            return finish("QBUF");
    }
    v4l2_buf_type streamType = v4l2_buf_type(type);
    if (Ioctl(fd, VIDIOC_STREAMON, &streamType) != 0)
        return finish("STREAMON");
    // Dequeues one buffer, blocking until the driver fills one, and hands it straight back.
    auto cycle = [&]() -> int {
        v4l2_plane plane[VIDEO_MAX_PLANES] = {};
        v4l2_buffer buffer{};
        buffer.type = type;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.m.planes = plane;
        buffer.length = planes ? VIDEO_MAX_PLANES : 0;
        if (Ioctl(fd, VIDIOC_DQBUF, &buffer) != 0)
            return errno == EAGAIN ? 0 : -1;
        if (Ioctl(fd, VIDIOC_QBUF, &buffer) != 0)
            return -1;
        return 1;
    };
    // The first frame can take a while (the driver starts its generator); the span starts
    // after it.
    pollfd watch{fd, POLLIN, 0};
    if (poll(&watch, 1, 30000) != 1 || cycle() != 1)
        return finish("first frame");
    const double started = Now(), cpu = ThreadCpuSeconds();
    while (Now() - started < seconds) {
        if (pollFirst && poll(&watch, 1, 5000) != 1)
            return finish("poll");
        const int got = cycle();
        if (got < 0)
            return finish("DQBUF");
        figures.frames += got;
    }
    figures.seconds = Now() - started;
    figures.cpuSeconds = ThreadCpuSeconds() - cpu;
    figures.ok = true;
    return finish(nullptr);
}
