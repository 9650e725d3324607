#include "support/realdevices.h"

#include <alsa/asoundlib.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include <gtest/gtest.h>

#include "platform/devices/alsa/alsadevices.h"
#include "support/ffprobe.h"
#include "support/tavix_helpers.h"

const char* const kLoopbackCapture = "hw:CARD=Loopback,DEV=1";
const char* const kLoopbackPlayback = "hw:CARD=Loopback,DEV=0";

bool DevicesRequired() {
    const char* value = std::getenv("TAVIX_REQUIRE_DEVICES");
    return value != nullptr && *value != '\0' && std::strcmp(value, "0") != 0;
}

std::vector<std::string> ListedDeviceNames(int mediaType) {
    std::vector<std::string> names;
    TavixDeviceEnumerateWithCallBack(
        [](const char* name, void* context) {
            static_cast<std::vector<std::string>*>(context)->push_back(name);
            return true;
        },
        &names, static_cast<TavixDeviceMediaType>(mediaType), 1);
    return names;
}

std::vector<platform::DeviceFormat> BackendFormats(const std::string& uniqueId) {
    for (platform::DeviceBackend* backend : platform::DeviceBackends())
        for (const auto& device : backend->Enumerate())
            if (device->Info().uniqueId == uniqueId)
                return device->Formats();
    return {};
}

V4L2DeviceInfo FindCameraOffering(uint32_t fourcc) {
    for (V4L2DeviceInfo& device : V4L2ListDevices())
        for (const V4L2Format& format : device.formats)
            if (format.fourcc == fourcc)
                return device;
    return {};
}

V4L2DeviceInfo FindMultiplanarCamera() {
    for (V4L2DeviceInfo& device : V4L2ListDevices())
        if (device.multiplanar)
            return device;
    return {};
}

std::string MappedFileOf(const void* address) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    const auto where = reinterpret_cast<uintptr_t>(address);
    while (std::getline(maps, line)) {
        uintptr_t start = 0, end = 0;
        if (sscanf(line.c_str(), "%lx-%lx", &start, &end) != 2 || where < start || where >= end)
            continue;
        const size_t slash = line.find('/');
        return slash == std::string::npos ? "" : line.substr(slash);
    }
    return "";
}

std::string LoopbackInputName() {
    for (const AlsaDeviceInfo& device : AlsaListDevices())
        if (device.pcmName == kLoopbackCapture)
            return device.displayName;
    return {};
}

void ExpectCameraRecordsWhatTheCallbackSees(const std::string& camera, unsigned long width,
                                            unsigned long height, int frames, bool sizeIsNative) {
    if (!HaveFFprobe())
        GTEST_SKIP() << "ffprobe is not installed";
    DeviceScope scope(TavixDeviceGet(camera.c_str(), TavixDeviceMediaTypeVideo));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    const std::string path = ::testing::TempDir() + "camera.mov";
    CallbackLog log;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log),
                                        kCVPixelFormatType_32BGRA, width, height, nullptr, 0, 0, 0,
                                        0, 0, path.c_str()));
    EXPECT_TRUE(WaitUntil([&] { return log.frames >= frames; }, std::chrono::seconds(60)));
    ASSERT_TRUE(TavixDeviceStopCapture(scope.handle));
    const ProbedMovie movie = ProbeMovie(path);
    ASSERT_TRUE(movie.readable);
    const ProbedStream* video = movie.Find("video");
    ASSERT_NE(nullptr, video);
    EXPECT_NEAR(log.frames.load(), video->frames, 1);
    if (sizeIsNative) {
        EXPECT_EQ(static_cast<int>(width), video->width);
        EXPECT_EQ(static_cast<int>(height), video->height);
    }
}

// Plays a 16-bit stereo sine into the loopback card until `stop` is set.
void PlayLoopbackTone(double hz, const std::atomic<bool>& stop) {
    snd_pcm_t* pcm = nullptr;
    if (snd_pcm_open(&pcm, kLoopbackPlayback, SND_PCM_STREAM_PLAYBACK, 0) != 0)
        return;
    const unsigned rate = 48000;
    snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, 2, rate, 0,
                       200000);
    std::vector<int16_t> period(2 * rate / 50);
    for (size_t done = 0; !stop; done += period.size() / 2) {
        for (size_t i = 0; i < period.size() / 2; ++i)
            period[2 * i] = period[2 * i + 1] =
                static_cast<int16_t>(12000 * std::sin(2 * M_PI * hz * double(done + i) / rate));
        const snd_pcm_sframes_t written = snd_pcm_writei(pcm, period.data(), period.size() / 2);
        if (written < 0)
            snd_pcm_recover(pcm, static_cast<int>(written), 1);
    }
    snd_pcm_drop(pcm);
    snd_pcm_close(pcm);
}
