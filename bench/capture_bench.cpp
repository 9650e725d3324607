// Frame delivery through the C interface from an unthrottled test camera that does not redraw
// its pictures, so the figures are the library's own cost of one frame from the device to the
// host's callback: when the device already delivers what the host asks for (no pixel is
// copied), at two frame sizes, and when every 1920 x 1080 frame is converted from '2vuy' to
// 'BGRA'. Also the first and the cached format enumeration of a device.
#include <atomic>
#include <string>
#include <thread>

#include "bench.h"
#include "llib/mac/tavix.h"
#include "llib/mac/tavixdeviceformat.h"
#include "platform/virtualdevices.h"

namespace {

std::atomic<long> frames{0};
std::atomic<unsigned long> lastWidth{0};

void CountFrame(const unsigned char* pixels, unsigned long, unsigned long width, unsigned long,
                unsigned long, const SMPTETime*, long) {
    if (pixels != nullptr)
        lastWidth = width;
    ++frames;
}

std::string AddCamera(const char* name, OSType format, size_t width, size_t height) {
    virtualdevices::DeviceSpec spec;
    spec.name = name;
    spec.video = true;
    spec.videoModes = {{format, width, height, 30}};
    return virtualdevices::Add(spec);
}

struct Delivery {
    double wallMicroseconds = -1, cpuMicroseconds = -1, framesPerSecond = 0;
};

// Per delivered frame, over about one second of unthrottled capture.
Delivery Measure(const char* name, unsigned long pixelFormat) {
    Delivery result;
    const unsigned long device = TavixDeviceGet(name, TavixDeviceMediaTypeVideo);
    if (device == 0 || !TavixDeviceOpen(device))
        return result;
    frames = 0;
    lastWidth = 0;
    TavixDeviceStartCapture(device, CountFrame, 0, pixelFormat, 0, 0, nullptr, 0, 0, 0, 0, 0,
                            nullptr);
    while (frames < 20) // past start-up and the pictures drawn at the start
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const long first = frames;
    const double begin = bench::Now(), cpuBegin = bench::ProcessCpuSeconds();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const long counted = frames - first;
    const double elapsed = bench::Now() - begin, cpu = bench::ProcessCpuSeconds() - cpuBegin;
    TavixDeviceStopCapture(device);
    TavixDeviceClose(device);
    TavixDeviceRelease(device);
    if (counted > 0 && lastWidth != 0) { // frames with pixels arrived
        result.wallMicroseconds = elapsed * 1e6 / static_cast<double>(counted);
        result.cpuMicroseconds = cpu * 1e6 / static_cast<double>(counted);
        result.framesPerSecond = static_cast<double>(counted) / elapsed;
    }
    return result;
}

void Report(const char* label, const Delivery& delivery) {
    std::string line = std::string(label) + ", wall";
    bench::Print(line.c_str(), delivery.wallMicroseconds, "us/frame");
    line = std::string(label) + ", CPU";
    bench::Print(line.c_str(), delivery.cpuMicroseconds, "us/frame");
    line = std::string(label) + ", rate";
    bench::Print(line.c_str(), delivery.framesPerSecond, "frames/s");
}

void FrameDelivery() {
    virtualdevices::SetUnthrottled(true);
    virtualdevices::SetStillPictures(true);
    AddCamera("Bench BGRA 1080p", kCVPixelFormatType_32BGRA, 1920, 1080);
    AddCamera("Bench BGRA 480p", kCVPixelFormatType_32BGRA, 640, 480);
    AddCamera("Bench 2vuy 1080p", kCVPixelFormatType_422YpCbCr8, 1920, 1080);
    Report("1920x1080 BGRA as BGRA (no copy)",
           Measure("Bench BGRA 1080p", kCVPixelFormatType_32BGRA));
    Report("640x480 BGRA as BGRA (no copy)", Measure("Bench BGRA 480p", 0));
    Report("1920x1080 2vuy converted to BGRA",
           Measure("Bench 2vuy 1080p", kCVPixelFormatType_32BGRA));
    virtualdevices::Reset();
}

void FormatEnumeration() {
    TavixDeviceFormatEnumeratorVoid ignore;
    const unsigned long device = TavixDeviceGet("Tavix Test Camera", TavixDeviceMediaTypeVideo);
    double begin = bench::Now();
    TavixDeviceFormatEnumerate(device, &ignore);
    bench::Print("first format enumeration (with probe)", (bench::Now() - begin) * 1e3, "ms");
    const int rounds = 10000;
    begin = bench::Now();
    for (int i = 0; i < rounds; ++i)
        TavixDeviceFormatEnumerate(device, &ignore);
    bench::Print("cached format enumeration", (bench::Now() - begin) * 1e6 / rounds, "us");
    TavixDeviceRelease(device);
}

bench::Section delivery("capture", FrameDelivery);
bench::Section formats("formats", FormatEnumeration);

} // namespace
