// Camera capture cost, side by side on the same V4L2 device in one run: a plain V4L2
// dequeue/queue loop (the floor), tavix's camera capture without conversion, and ffmpeg reading
// the device into a null sink. Prints frames per second and CPU milliseconds per frame of each.
// Needs a capture node offering YUYV (inside scripts/devvm.sh: vivid); says so otherwise.
#include "bench.h"

#include "platform/devices/v4l2/v4l2camera.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

const uint32_t kWidth = 640;
const uint32_t kHeight = 360;
const int kFrames = 60;

struct Figures {
    int frames = 0;
    double seconds = 0;
    double cpuSeconds = 0;
};

void Report(const char* what, const Figures& figures) {
    std::string label = std::string(what) + ": frames per second";
    bench::Print(label.c_str(), figures.seconds > 0 ? figures.frames / figures.seconds : 0, "fps");
    label = std::string(what) + ": CPU time per frame";
    bench::Print(label.c_str(), figures.frames ? 1000 * figures.cpuSeconds / figures.frames : 0,
                 "ms");
}

// The floor: the fewest system calls that stream frames.
Figures PlainLoop(const std::string& path) {
    Figures figures;
    int fd = open(path.c_str(), O_RDWR);
    if (fd < 0)
        return figures;
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix = {kWidth, kHeight, V4L2_PIX_FMT_YUYV, V4L2_FIELD_ANY, 0, 0, 0, 0, 0, 0, 0, 0};
    v4l2_requestbuffers request{};
    request.count = 6;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (ioctl(fd, VIDIOC_S_FMT, &format) == 0 && ioctl(fd, VIDIOC_REQBUFS, &request) == 0) {
        std::vector<std::pair<void*, size_t>> maps;
        for (uint32_t i = 0; i < request.count; ++i) {
            v4l2_buffer buffer{};
            buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            buffer.memory = V4L2_MEMORY_MMAP;
            buffer.index = i;
            ioctl(fd, VIDIOC_QUERYBUF, &buffer);
            maps.push_back({mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                                 buffer.m.offset),
                            buffer.length});
            ioctl(fd, VIDIOC_QBUF, &buffer);
        }
        v4l2_buf_type type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        ioctl(fd, VIDIOC_STREAMON, &type);
        double started = bench::Now(), cpu = bench::ProcessCpuSeconds();
        for (; figures.frames < kFrames; ++figures.frames) {
            v4l2_buffer buffer{};
            buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            buffer.memory = V4L2_MEMORY_MMAP;
            if (ioctl(fd, VIDIOC_DQBUF, &buffer) != 0)
                break;
            bench::KeepAlive(static_cast<const uint8_t*>(maps[buffer.index].first)[0]);
            ioctl(fd, VIDIOC_QBUF, &buffer);
        }
        figures.seconds = bench::Now() - started;
        figures.cpuSeconds = bench::ProcessCpuSeconds() - cpu;
        ioctl(fd, VIDIOC_STREAMOFF, &type);
        for (const auto& map : maps)
            munmap(map.first, map.second);
    }
    close(fd);
    return figures;
}

// tavix's camera path without conversion: the frames as the backend hands them on.
Figures TavixCapture(const std::string& path) {
    Figures figures;
    V4L2Camera camera;
    if (camera.open(path) != V4L2Camera::Status::Ok ||
        camera.setFormat(V4L2_PIX_FMT_YUYV, kWidth, kHeight, {}) != V4L2Camera::Status::Ok ||
        camera.start(6) != V4L2Camera::Status::Ok)
        return figures;
    double started = bench::Now(), cpu = bench::ProcessCpuSeconds();
    V4L2Frame frame;
    for (; figures.frames < kFrames; ++figures.frames) {
        if (camera.waitFrame(5000, frame) != V4L2Camera::Wait::Frame)
            break;
        bench::KeepAlive(frame.data[0]);
    }
    frame.requeue();
    figures.seconds = bench::Now() - started;
    figures.cpuSeconds = bench::ProcessCpuSeconds() - cpu;
    return figures;
}

// ffmpeg reading the same device; its CPU time comes from the child's resource usage.
Figures Ffmpeg(const std::string& path) {
    Figures figures;
    std::string size = std::to_string(kWidth) + "x" + std::to_string(kHeight);
    std::string frames = std::to_string(kFrames);
    double started = bench::Now();
    pid_t child = fork();
    if (child == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execlp("ffmpeg", "ffmpeg", "-nostdin", "-hide_banner", "-f", "v4l2", "-input_format",
               "yuyv422", "-video_size", size.c_str(), "-i", path.c_str(), "-frames:v",
               frames.c_str(), "-f", "null", "-", (char*)nullptr);
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0)
        return figures;
    figures.seconds = bench::Now() - started; // includes ffmpeg's start-up
    figures.frames = kFrames;
    figures.cpuSeconds = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 +
                         usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6;
    return figures;
}

void CameraCapture() {
    std::string path;
    for (const V4L2DeviceInfo& device : V4L2ListDevices())
        for (const V4L2Format& format : device.formats)
            if (path.empty() && format.fourcc == V4L2_PIX_FMT_YUYV)
                path = device.path;
    if (path.empty()) {
        std::printf("  no V4L2 camera offering YUYV: run inside scripts/devvm.sh\n");
        return;
    }
    std::printf("  %s, YUYV %ux%u, %d frames each\n", path.c_str(), kWidth, kHeight, kFrames);
    Report("plain V4L2 loop", PlainLoop(path));
    Report("tavix capture, no conversion", TavixCapture(path));
    Report("ffmpeg -f v4l2 -f null", Ffmpeg(path));
}

bench::Section section("devices", &CameraCapture);

} // namespace
