// Frame delivery through the C interface from an unthrottled 1920 x 1080 test camera: the cost
// of one frame from the device to the host's callback, when the device already delivers what
// the host asks for (no pixel is copied) and when every frame is converted from '2vuy' to
// 'BGRA'; and the first and the cached format enumeration of a device.
#include <atomic>
#include <string>
#include <thread>

#include "bench.h"
#include "llib/mac/tavix.h"
#include "llib/mac/tavixdeviceformat.h"
#include "platform/virtualdevices.h"

namespace {

std::atomic<long> frames{0};
std::atomic<const unsigned char*> lastPixels{nullptr};

void CountFrame(const unsigned char* pixels, unsigned long, unsigned long, unsigned long,
                unsigned long, const SMPTETime*, long) {
    lastPixels = pixels;
    ++frames;
}

std::string AddCamera(const char* name, OSType format) {
    virtualdevices::DeviceSpec spec;
    spec.name = name;
    spec.video = true;
    spec.videoModes = {{format, 1920, 1080, 30}};
    return virtualdevices::Add(spec);
}

// Microseconds per delivered frame over about one second of unthrottled capture.
double MicrosecondsPerFrame(const char* name, unsigned long pixelFormat) {
    const unsigned long device = TavixDeviceGet(name, TavixDeviceMediaTypeVideo);
    if (device == 0 || !TavixDeviceOpen(device))
        return -1;
    frames = 0;
    TavixDeviceStartCapture(device, CountFrame, 0, pixelFormat, 0, 0, nullptr, 0, 0, 0, 0, 0,
                            nullptr);
    while (frames < 10) // past start-up
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const long first = frames;
    const double begin = bench::Now();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const long counted = frames - first;
    const double elapsed = bench::Now() - begin;
    TavixDeviceStopCapture(device);
    TavixDeviceClose(device);
    TavixDeviceRelease(device);
    return counted > 0 ? elapsed * 1e6 / static_cast<double>(counted) : -1;
}

void FrameDelivery() {
    virtualdevices::SetUnthrottled(true);
    AddCamera("Bench BGRA Camera", kCVPixelFormatType_32BGRA);
    AddCamera("Bench 2vuy Camera", kCVPixelFormatType_422YpCbCr8);
    bench::Print("1080p BGRA delivered as BGRA (no copy)",
                 MicrosecondsPerFrame("Bench BGRA Camera", kCVPixelFormatType_32BGRA), "us/frame");
    bench::Print("1080p 2vuy delivered as 2vuy (no copy)",
                 MicrosecondsPerFrame("Bench 2vuy Camera", 0), "us/frame");
    bench::Print("1080p 2vuy converted to BGRA",
                 MicrosecondsPerFrame("Bench 2vuy Camera", kCVPixelFormatType_32BGRA), "us/frame");
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
