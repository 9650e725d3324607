// Camera capture cost, side by side on the same V4L2 devices in one run: a plain V4L2
// dequeue/queue loop (the floor), tavix's capture through its C interface (the frames as a host's
// callback receives them, in the camera's own format), for one camera and for four at once, in
// alternating rounds; then, for one camera, the camera class alone, the plain loop waiting in
// poll() as the class does, and ffmpeg reading the device into a null sink. Prints frames per
// second and CPU milliseconds per frame, tavix's rate and cost as multiples of the loop's, and the
// time StopCapture takes for all the cameras (the sound card too, with four). Needs
// vivid capture nodes offering YUYV (inside scripts/devvm.sh; four with
// TAVIX_VM_VIVID="n_devs=4"), and for the sound the loopback card; says so otherwise.
#include "bench.h"

#include "llib/mac/tavix.h"
#include "platform/devices/alsa/alsadevices.h"
#include "platform/devices/v4l2/v4l2camera.h"
#include "platform/pixelformats.h"
#include "plainv4l2.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// vivid's webcam input offers 60 frames per second at this size, which the emulated machine
// sustains for four cameras.
const uint32_t kWidth = 320;
const uint32_t kHeight = 180;
const double kSeconds = 3;
const int kRounds = 5;
const int kFfmpegFrames = 60;

struct Figures {
    int frames = 0;
    double seconds = 0;
    double cpuSeconds = 0;
    double stopSeconds = 0; // StopCapture of every camera, one after the other
    double msPerFrame() const { return frames ? 1000 * cpuSeconds / frames : 0; }
    double framesPerSecond() const { return seconds > 0 ? frames / seconds : 0; }
};

void Report(const std::string& what, const Figures& figures) {
    bench::Print((what + ": frames per second").c_str(), figures.framesPerSecond(), "fps");
    bench::Print((what + ": CPU time per frame").c_str(), figures.msPerFrame(), "ms");
}

// The floor: one plain loop per camera, each on its own thread, all at once.
Figures PlainLoops(const std::vector<V4L2DeviceInfo>& cameras) {
    std::vector<PlainCaptureFigures> each(cameras.size());
    std::vector<std::thread> loops;
    for (size_t i = 0; i < cameras.size(); ++i)
        loops.emplace_back([&, i] {
            each[i] = RunPlainV4L2Loop(cameras[i], V4L2_PIX_FMT_YUYV, kWidth, kHeight, kSeconds);
        });
    for (std::thread& loop : loops)
        loop.join();
    Figures figures;
    for (const PlainCaptureFigures& one : each) {
        if (!one.ok) {
            std::printf("  plain loop failed: %s\n", one.error.c_str());
            return {};
        }
        figures.frames += one.frames;
        figures.cpuSeconds += one.cpuSeconds;
        figures.seconds = std::max(figures.seconds, one.seconds);
    }
    return figures;
}

void CountFrame(const unsigned char* pixels, unsigned long, unsigned long, unsigned long,
                unsigned long, const SMPTETime*, long data) {
    bench::KeepAlive(pixels[0]);
    ++*reinterpret_cast<std::atomic<int>*>(data);
}

// The loopback card's capture side, which the first of four cameras takes its sound from, as
// the device tests have it; empty when the card is not there.
std::string LoopbackInput() {
    for (const AlsaDeviceInfo& device : AlsaListDevices())
        if (device.pcmName == "hw:CARD=Loopback,DEV=1")
            return device.displayName;
    return {};
}

// tavix capturing from every camera at once, as a host would, counted from the moment all of
// them deliver; the whole process's CPU time (capture threads included) over that span. With
// four cameras the first takes its sound from the loopback card, when there is one.
Figures TavixCaptures(const std::vector<V4L2DeviceInfo>& cameras) {
    Figures figures;
    std::vector<unsigned long> handles;
    std::vector<std::atomic<int>> counts(cameras.size());
    const std::string sound = cameras.size() >= 4 ? LoopbackInput() : std::string();
    bool started = true;
    for (size_t i = 0; i < cameras.size() && started; ++i) {
        const unsigned long handle =
            TavixDeviceGet(cameras[i].displayName.c_str(), TavixDeviceMediaTypeVideo);
        if (handle == 0)
            break;
        handles.push_back(handle);
        const long data = reinterpret_cast<long>(&counts[i]);
        started =
            TavixDeviceOpen(handle) &&
            (i == 0 && !sound.empty()
                 ? TavixDeviceStartCaptureWithAudioDevice(
                       handle, sound.c_str(), CountFrame, data, kCVPixelFormatType_422YpCbCr8_yuvs,
                       kWidth, kHeight, nullptr, 0, 0, 0, 0, 0, nullptr)
                 : TavixDeviceStartCapture(handle, CountFrame, data,
                                           kCVPixelFormatType_422YpCbCr8_yuvs, kWidth, kHeight,
                                           nullptr, 0, 0, 0, 0, 0, nullptr));
    }
    auto allFlowing = [&] {
        for (const std::atomic<int>& count : counts)
            if (count == 0)
                return false;
        return true;
    };
    const double patience = bench::Now() + 30;
    while (started && handles.size() == cameras.size() && !allFlowing() && bench::Now() < patience)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (handles.size() == cameras.size() && allFlowing()) {
        int before = 0;
        for (const std::atomic<int>& count : counts)
            before += count;
        const double startedAt = bench::Now(), cpu = bench::ProcessCpuSeconds();
        std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
        figures.cpuSeconds = bench::ProcessCpuSeconds() - cpu;
        figures.seconds = bench::Now() - startedAt;
        for (const std::atomic<int>& count : counts)
            figures.frames += count;
        figures.frames -= before;
    } else {
        std::printf("  tavix could not capture from all %zu cameras\n", cameras.size());
    }
    const double stopping = bench::Now();
    for (unsigned long handle : handles)
        TavixDeviceStopCapture(handle);
    figures.stopSeconds = bench::Now() - stopping;
    for (unsigned long handle : handles) {
        TavixDeviceClose(handle);
        TavixDeviceRelease(handle);
    }
    return figures;
}

// The camera class alone, without the capture pipeline above it: how much of tavix's cost is
// the driver conversation.
Figures CameraClass(const V4L2DeviceInfo& device) {
    Figures figures;
    V4L2Camera camera;
    if (camera.open(device.path) != V4L2Camera::Status::Ok ||
        (device.selectsInput &&
         camera.selectInput(device.input.index, 0) != V4L2Camera::Status::Ok) ||
        camera.setFormat(V4L2_PIX_FMT_YUYV, kWidth, kHeight, {}) != V4L2Camera::Status::Ok ||
        camera.start(6) != V4L2Camera::Status::Ok)
        return figures;
    V4L2Frame frame;
    if (camera.waitFrame(30000, frame) != V4L2Camera::Wait::Frame)
        return figures;
    double started = bench::Now(), cpu = bench::ProcessCpuSeconds();
    while (bench::Now() - started < kSeconds) {
        if (camera.waitFrame(5000, frame) != V4L2Camera::Wait::Frame)
            break;
        bench::KeepAlive(frame.data[0]);
        ++figures.frames;
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
    std::string frames = std::to_string(kFfmpegFrames);
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
    figures.frames = kFfmpegFrames;
    figures.cpuSeconds = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 +
                         usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6;
    return figures;
}

// The guest's CPU clock drifts with the host's load, so the two are measured in alternating
// rounds and compared round by round; the spread of the ratios shows the noise.
void Compare(const std::string& what, const std::vector<V4L2DeviceInfo>& cameras) {
    Figures plain, tavix;
    std::vector<double> ratios, stops;
    for (int round = 0; round < kRounds; ++round) {
        const Figures plainRound = PlainLoops(cameras);
        const Figures tavixRound = TavixCaptures(cameras);
        if (plainRound.frames == 0 || tavixRound.frames == 0)
            return;
        ratios.push_back(tavixRound.msPerFrame() / plainRound.msPerFrame());
        stops.push_back(tavixRound.stopSeconds);
        for (auto [sum, one] : {std::pair{&plain, &plainRound}, std::pair{&tavix, &tavixRound}}) {
            sum->frames += one->frames;
            sum->seconds += one->seconds;
            sum->cpuSeconds += one->cpuSeconds;
        }
    }
    Report("plain V4L2 loop, " + what, plain);
    Report("tavix capture, " + what, tavix);
    bench::Print(("tavix / plain loop frames per second, " + what).c_str(),
                 tavix.framesPerSecond() / plain.framesPerSecond(), "x");
    std::sort(stops.begin(), stops.end());
    bench::Print(("tavix: stopping " + what + ", median round").c_str(),
                 1000 * stops[stops.size() / 2], "ms");
    bench::Print(("tavix: stopping " + what + ", slowest round").c_str(), 1000 * stops.back(),
                 "ms");
    std::sort(ratios.begin(), ratios.end());
    bench::Print(("tavix / plain loop CPU per frame, " + what + ", all rounds").c_str(),
                 tavix.msPerFrame() / plain.msPerFrame(), "x");
    bench::Print("  lowest round", ratios.front(), "x");
    bench::Print("  median round", ratios[ratios.size() / 2], "x");
    bench::Print("  highest round", ratios.back(), "x");
}

void CameraCapture() {
    // The webcam input of each node offering YUYV (vivid's nodes have several inputs).
    std::vector<V4L2DeviceInfo> cameras;
    for (const V4L2DeviceInfo& device : V4L2ListDevices()) {
        if (device.selectsInput && device.input.name.rfind("Webcam", 0) != 0)
            continue;
        for (const V4L2Format& format : device.formats)
            if (format.fourcc == V4L2_PIX_FMT_YUYV) {
                cameras.push_back(device);
                break;
            }
    }
    if (cameras.empty()) {
        std::printf("  no V4L2 camera offering YUYV: run inside scripts/devvm.sh\n");
        return;
    }
    std::printf("  YUYV %ux%u, %d rounds of %.0f s each; %zu camera(s): %s", kWidth, kHeight,
                kRounds, kSeconds, cameras.size(), cameras[0].displayName.c_str());
    for (size_t i = 1; i < cameras.size() && i < 4; ++i)
        std::printf(", %s", cameras[i].displayName.c_str());
    std::printf("\n");
    Compare("one camera", {cameras[0]});
    if (cameras.size() >= 4)
        Compare("four cameras", {cameras.begin(), cameras.begin() + 4});
    else
        std::printf("  fewer than four cameras: TAVIX_VM_VIVID=\"n_devs=4\" has four\n");
    Report("tavix camera class alone, one camera", CameraClass(cameras[0]));
    // The camera class waits in poll() so that it can stop between frames; this is the plain
    // loop paying the same.
    PlainCaptureFigures polling =
        RunPlainV4L2Loop(cameras[0], V4L2_PIX_FMT_YUYV, kWidth, kHeight, kSeconds, true);
    Report("plain V4L2 loop waiting in poll(), one camera",
           {polling.frames, polling.seconds, polling.cpuSeconds});
    Report("ffmpeg -f v4l2 -f null, one camera (with start-up)", Ffmpeg(cameras[0].path));
}

bench::Section section("devices", &CameraCapture);

} // namespace
