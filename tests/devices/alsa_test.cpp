// The ALSA sound-input code: which hints are offered and how they are named everywhere;
// capture, tone frequency and overrun recovery against the loopback card where it exists
// (snd-aloop, inside scripts/devvm.sh).
#include "platform/devices/alsa/alsacapture.h"
#include "support/realdevices.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

TEST(AlsaListing, OnlyHardwareAndDefaultDevicesAreOffered) {
    EXPECT_TRUE(AlsaIsOfferedPcm("default"));
    EXPECT_TRUE(AlsaIsOfferedPcm("hw:CARD=PCH,DEV=0"));
    for (const char* name :
         {"null", "plughw:CARD=PCH,DEV=0", "dsnoop:CARD=PCH,DEV=0", "sysdefault:CARD=PCH",
          "front:CARD=PCH,DEV=0", "default:CARD=PCH", "pulse", ""})
        EXPECT_FALSE(AlsaIsOfferedPcm(name)) << name;
}

TEST(AlsaListing, DisplayNameIsTheFirstDescriptionLineMadeUnique) {
    std::vector<AlsaDeviceInfo> devices(4);
    devices[0].pcmName = "hw:CARD=Loopback,DEV=0";
    devices[0].description =
        "Loopback, Loopback PCM\nDirect hardware device without any conversions";
    devices[1].pcmName = "hw:CARD=Loopback,DEV=1";
    devices[1].description = devices[0].description;
    devices[2].pcmName = "hw:CARD=X,DEV=0";
    devices[3].pcmName = "default";
    devices[3].description = "Default ALSA Output (currently PipeWire Media Server)";
    AlsaAssignDisplayNames(devices);
    EXPECT_EQ("Loopback, Loopback PCM", devices[0].displayName);
    EXPECT_EQ("Loopback, Loopback PCM (2)", devices[1].displayName);
    EXPECT_EQ("hw:CARD=X,DEV=0", devices[2].displayName);
    EXPECT_EQ("Default ALSA Output (currently PipeWire Media Server)", devices[3].displayName);
}

TEST(AlsaListing, SampleLayoutsUseCoreAudioFlags) {
    AlsaSampleLayout layout;
    ASSERT_TRUE(AlsaSampleLayoutOf(SND_PCM_FORMAT_S16_LE, layout));
    EXPECT_EQ(12u, layout.formatFlags); // signed integer, packed
    EXPECT_EQ(16u, layout.bitsPerChannel);
    EXPECT_EQ(2u, layout.bytesPerSample);
    ASSERT_TRUE(AlsaSampleLayoutOf(SND_PCM_FORMAT_S16_BE, layout));
    EXPECT_EQ(14u, layout.formatFlags);
    ASSERT_TRUE(AlsaSampleLayoutOf(SND_PCM_FORMAT_S24_3LE, layout));
    EXPECT_EQ(3u, layout.bytesPerSample);
    EXPECT_EQ(24u, layout.bitsPerChannel);
    ASSERT_TRUE(AlsaSampleLayoutOf(SND_PCM_FORMAT_S24_LE, layout));
    EXPECT_EQ(4u, layout.formatFlags); // low 24 bits of 4 bytes: not packed
    EXPECT_EQ(4u, layout.bytesPerSample);
    ASSERT_TRUE(AlsaSampleLayoutOf(SND_PCM_FORMAT_FLOAT_LE, layout));
    EXPECT_EQ(9u, layout.formatFlags);
    ASSERT_TRUE(AlsaSampleLayoutOf(SND_PCM_FORMAT_U8, layout));
    EXPECT_EQ(8u, layout.formatFlags);
    EXPECT_FALSE(AlsaSampleLayoutOf(SND_PCM_FORMAT_MU_LAW, layout));
    EXPECT_FALSE(AlsaSampleLayoutOf(SND_PCM_FORMAT_FLOAT64_LE, layout));
}

TEST(AlsaListing, ListsQuicklyAndNothingFailsWithoutCards) {
    auto started = std::chrono::steady_clock::now();
    std::vector<AlsaDeviceInfo> devices = AlsaListDevices();
    double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_LT(seconds, 5.0);
    for (const AlsaDeviceInfo& device : devices) {
        EXPECT_TRUE(AlsaIsOfferedPcm(device.pcmName));
        EXPECT_FALSE(device.displayName.empty());
    }
    AlsaNativeFormat format;
    bool busy = true;
    EXPECT_FALSE(AlsaProbeNativeFormat("hw:CARD=NoSuchCard,DEV=0", format, &busy));
    EXPECT_FALSE(busy);
    EXPECT_FALSE(AlsaIsPresent("hw:CARD=NoSuchCard,DEV=0"));
    EXPECT_FALSE(AlsaIsInUse("hw:CARD=NoSuchCard,DEV=0"));
    AlsaCapture capture;
    EXPECT_NE(AlsaCapture::Status::Ok,
              capture.start("hw:CARD=NoSuchCard,DEV=0", {SND_PCM_FORMAT_S16_LE, 48000, 2}, nullptr,
                            nullptr));
    EXPECT_FALSE(capture.isRunning());
}

// Collects what a capture delivers, 16-bit stereo.
struct Recorder {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<int16_t> samples;
    int deliveries = 0;

    AlsaCapture::Deliver deliver(std::chrono::milliseconds stallOnce = {}) {
        return [this, stallOnce](const uint8_t* data, size_t frames, double) {
            const int16_t* values = reinterpret_cast<const int16_t*>(data);
            std::unique_lock<std::mutex> hold(mutex);
            samples.insert(samples.end(), values, values + frames * 2);
            if (++deliveries == 2 && stallOnce.count())
                std::this_thread::sleep_for(stallOnce); // falls behind the hardware on purpose
            arrived.notify_all();
        };
    }
    bool waitForFrames(size_t frames) {
        std::unique_lock<std::mutex> hold(mutex);
        return arrived.wait_for(hold, std::chrono::seconds(20),
                                [&] { return samples.size() >= frames * 2; });
    }
};

TEST(AlsaCapturing, LoopbackNativeFormatIsLinearPcm) {
    REQUIRE_LOOPBACK(input);
    AlsaNativeFormat format;
    bool busy = true;
    ASSERT_TRUE(AlsaProbeNativeFormat(kLoopbackCapture, format, &busy));
    EXPECT_FALSE(busy);
    EXPECT_EQ(SND_PCM_FORMAT_S16_LE, format.format);
    EXPECT_EQ(48000u, format.rate);
    EXPECT_EQ(2u, format.channels);
}

TEST(AlsaCapturing, OverrunIsRecoveredAndCaptureGoesOn) {
    REQUIRE_LOOPBACK(input);
    Recorder recorder;
    AlsaCapture capture;
    // The second delivery stalls far longer than the 200 ms buffer holds.
    ASSERT_EQ(AlsaCapture::Status::Ok,
              capture.start(kLoopbackCapture, {SND_PCM_FORMAT_S16_LE, 48000, 2},
                            recorder.deliver(std::chrono::milliseconds(600)), nullptr));
    ASSERT_TRUE(recorder.waitForFrames(48000));
    capture.stop();
    EXPECT_GE(capture.overruns(), 1u);
    EXPECT_FALSE(capture.isGone());
}

TEST(AlsaCapturing, SecondOpenOfAHardwareDeviceIsBusy) {
    REQUIRE_LOOPBACK(input);
    AlsaCapture first;
    ASSERT_EQ(AlsaCapture::Status::Ok,
              first.start(kLoopbackCapture, {SND_PCM_FORMAT_S16_LE, 48000, 2}, nullptr, nullptr));
    // snd-aloop has eight substreams per device; take all of them to see the refusal.
    std::vector<snd_pcm_t*> others;
    snd_pcm_t* pcm = nullptr;
    while (others.size() < 16 &&
           snd_pcm_open(&pcm, kLoopbackCapture, SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK) == 0)
        others.push_back(pcm);
    AlsaNativeFormat format;
    bool busy = false;
    EXPECT_FALSE(AlsaProbeNativeFormat(kLoopbackCapture, format, &busy));
    EXPECT_TRUE(busy);
    EXPECT_TRUE(AlsaIsInUse(kLoopbackCapture));
    EXPECT_TRUE(AlsaIsPresent(kLoopbackCapture));
    for (snd_pcm_t* other : others)
        snd_pcm_close(other);
    first.stop();
}

} // namespace
