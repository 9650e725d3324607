// Format records and sets, the checkers, the per-device caches and format discovery with its
// default-format probe.
#include <cmath>
#include <gtest/gtest.h>
#include <atomic>
#include <thread>
#include <utility>
#include <vector>

#include "platform/virtualdevices.h"
#include "support/tavix_helpers.h"
#include "tavix/tavixdeviceformat.h"

namespace {

const unsigned int k2vuy = kCVPixelFormatType_422YpCbCr8;
const unsigned int kFallback = 0x42475241; // 'BGRA' read big-endian

TEST(FormatSet, KeepsDistinctRecordsUpToSixtyFour) {
    TavixDeviceFormatSet set;
    EXPECT_TRUE(set.Add({1, 640, 480, 0}));
    EXPECT_FALSE(set.Add({1, 640, 480, 0}));
    EXPECT_EQ(1u, set.dwCount);
    EXPECT_TRUE(set.Add({1, 640, 480, 1280})) << "bytes per row make a record distinct";
    for (unsigned int i = 2; i < 64; ++i)
        EXPECT_TRUE(set.Add({2, i, i, 0}));
    EXPECT_EQ(64u, set.dwCount);
    EXPECT_FALSE(set.Add({3, 1, 1, 0})) << "the 65th record";
    EXPECT_EQ(64u, set.dwCount);
}

TEST(FormatSet, SortsLargestFrameFirstThenSmallerFormat) {
    const unsigned int a = 0x79757673, b = 0x32767579; // b < a
    TavixDeviceFormatSet set;
    set.Add({a, 640, 480, 0});
    set.Add({b, 1280, 720, 0});
    set.Add({b, 640, 480, 0});
    set.Add({b, 640, 360, 0});
    set.Sort();
    const std::vector<TavixDeviceFormat> expected = {
        {b, 1280, 720, 0}, {b, 640, 480, 0}, {a, 640, 480, 0}, {b, 640, 360, 0}};
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_TRUE(set[i] == expected[i]) << i;

    TavixDeviceFormatSet audio;
    for (unsigned int format : {30u, 10u, 20u})
        audio.Add({format, 0, 0, 0});
    audio.Sort();
    EXPECT_EQ(10u, audio[0].dwFormat);
    EXPECT_EQ(30u, audio[2].dwFormat);
}

// Records what a holder reports, in order, and can stop at a given report.
struct Recorder : ITavixDeviceFormatEnumerator {
    std::vector<std::pair<bool, TavixDeviceFormat>> seen; // (is video, record)
    int stopAudioAt = -1, stopVideoAt = -1;
    int audio = 0, video = 0;
    bool OnDeviceFormatAudio(unsigned long format) override {
        seen.push_back({false, {static_cast<unsigned int>(format), 0, 0, 0}});
        return audio++ != stopAudioAt;
    }
    bool OnDeviceFormatVideo(unsigned long format, unsigned long width,
                             unsigned long height) override {
        seen.push_back({true,
                        {static_cast<unsigned int>(format), static_cast<unsigned int>(width),
                         static_cast<unsigned int>(height), 0}});
        return video++ != stopVideoAt;
    }
    std::vector<std::pair<unsigned int, unsigned int>> Sizes() const {
        std::vector<std::pair<unsigned int, unsigned int>> sizes;
        for (const auto& entry : seen)
            if (entry.first)
                sizes.emplace_back(entry.second.dwWidth, entry.second.dwHeight);
        return sizes;
    }
};

TEST(FormatHolder, ReportsSoundThenVideoAndAStopEndsOnlyItsPass) {
    TavixDeviceFormatHolder holder;
    Recorder empty;
    holder.EnumerateFormats(empty);
    EXPECT_TRUE(empty.seen.empty());
    EXPECT_FALSE(holder.IsValid());

    EXPECT_TRUE(holder.OnDeviceFormatVideo(5, 320, 240));
    EXPECT_TRUE(holder.OnDeviceFormatVideo(5, 320, 240)) << "true even for a duplicate";
    holder.OnDeviceFormatVideo(5, 640, 480);
    holder.OnDeviceFormatAudio(7);
    holder.OnDeviceFormatAudio(3);
    holder.Sort();
    EXPECT_TRUE(holder.IsValid());

    Recorder recorder;
    recorder.stopAudioAt = 0;
    holder.EnumerateFormats(recorder);
    ASSERT_EQ(3u, recorder.seen.size()) << "one sound report, then both video records";
    EXPECT_EQ(3u, recorder.seen[0].second.dwFormat);
    EXPECT_EQ(640u, recorder.seen[1].second.dwWidth);
}

class DiscoveryTest : public ::testing::Test {
protected:
    void TearDown() override { virtualdevices::Reset(); }

    static Recorder Enumerate(const char* name, TavixDeviceMediaType type) {
        Recorder recorder;
        DeviceScope scope(TavixDeviceGet(name, type));
        EXPECT_TRUE(TavixDeviceFormatEnumerate(scope.handle, &recorder)) << name;
        return recorder;
    }

    static std::string AddCamera(const char* name, size_t width, size_t height,
                                 bool openable = true) {
        virtualdevices::DeviceSpec spec = CameraSpec(name, {k2vuy, width, height, 30});
        spec.openable = openable;
        return virtualdevices::Add(spec);
    }
};

using Sizes = std::vector<std::pair<unsigned int, unsigned int>>;

// A camera reports its probed frame, in the probed format, then the sizes of the table below
// it that are smaller in both dimensions.
TEST_F(DiscoveryTest, ACameraReportsItsProbedFrameAndSmallerTableSizes) {
    const struct Case {
        const char* name;
        size_t width, height;
        Sizes expected;
    } cases[] = {
        {virtualdevices::kTestCameraName,
         1280,
         720,
         {{1280, 720}, {640, 480}, {352, 288}, {320, 240}, {160, 120}}},
        {"Wide Camera", 640, 360, {{640, 360}, {352, 288}, {320, 240}, {160, 120}}},
        {"CIF Camera", 352, 288, {{352, 288}, {320, 240}, {160, 120}}},
        {"Tiny Camera", 160, 120, {{160, 120}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.name != virtualdevices::kTestCameraName)
            AddCamera(c.name, c.width, c.height);
        const Recorder camera = Enumerate(c.name, TavixDeviceMediaTypeVideo);
        EXPECT_EQ(c.expected, camera.Sizes());
        for (const auto& entry : camera.seen)
            EXPECT_EQ(k2vuy, entry.second.dwFormat);
    }
}

TEST_F(DiscoveryTest, ADeckReportsTheDVSizeInTheFallbackFormatAndItsSound) {
    const Recorder deck = Enumerate(virtualdevices::kTestDeckName, TavixDeviceMediaTypeMuxed);
    EXPECT_EQ((Sizes{{720, 576}, {640, 480}, {352, 288}, {320, 240}, {160, 120}}), deck.Sizes());
    ASSERT_FALSE(deck.seen.empty());
    EXPECT_FALSE(deck.seen.front().first) << "sound first";
    EXPECT_EQ(static_cast<unsigned int>(kAudioFormatLinearPCM), deck.seen.front().second.dwFormat);
    EXPECT_EQ(kFallback, deck.seen.back().second.dwFormat);

    const Recorder mic = Enumerate(virtualdevices::kTestMicrophoneName, TavixDeviceMediaTypeSound);
    ASSERT_EQ(1u, mic.seen.size());
    EXPECT_FALSE(mic.seen[0].first);
}

TEST_F(DiscoveryTest, TheAnswerIsCachedPerDeviceForTheProcess) {
    const std::string id = AddCamera("Cached Camera", 352, 288);
    const Sizes first = Enumerate("Cached Camera", TavixDeviceMediaTypeVideo).Sizes();
    ASSERT_EQ(3u, first.size());
    // The device can no longer be opened: the answer comes from the cache.
    virtualdevices::SetOpenable(id, false);
    EXPECT_EQ(first, Enumerate("Cached Camera", TavixDeviceMediaTypeVideo).Sizes());
}

TEST_F(DiscoveryTest, AFailedProbeFallsBackAndIsNotRetried) {
    const std::string id = AddCamera("Locked Camera", 320, 240, false);
    const Recorder failed = Enumerate("Locked Camera", TavixDeviceMediaTypeVideo);
    // The description's own size, in the fallback format.
    ASSERT_FALSE(failed.seen.empty());
    EXPECT_EQ(kFallback, failed.seen[0].second.dwFormat);
    EXPECT_EQ(320u, failed.seen[0].second.dwWidth);

    // Forget the device's formats but not its probe: the failed probe is remembered.
    DevicesFormats.Clear();
    virtualdevices::SetOpenable(id, true);
    const Recorder again = Enumerate("Locked Camera", TavixDeviceMediaTypeVideo);
    ASSERT_FALSE(again.seen.empty());
    EXPECT_EQ(kFallback, again.seen[0].second.dwFormat);
}

// Two threads enumerate two devices for the first time at once, as the per-device rule allows:
// each probe runs off the main thread and both land in the shared caches. The handles are got
// first, so the two enumerations meet in the caches (ThreadSanitizer, in the sanitizer build).
TEST_F(DiscoveryTest, TheProbeWorksOffTheMainThreadForTwoDevicesAtOnce) {
    AddCamera("Threaded Camera", 160, 120);
    AddCamera("Other Threaded Camera", 320, 240);
    DeviceScope first(TavixDeviceGet("Threaded Camera", TavixDeviceMediaTypeVideo));
    DeviceScope second(TavixDeviceGet("Other Threaded Camera", TavixDeviceMediaTypeVideo));
    const unsigned long handles[] = {first.handle, second.handle};
    Recorder found[2];
    std::atomic<int> ready{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < 2; ++i)
        workers.emplace_back([&, i] {
            void* pool = TavixThreadInit();
            EXPECT_FALSE(TavixIsMainThread());
            for (++ready; ready < 2;)
                std::this_thread::yield();
            EXPECT_TRUE(TavixDeviceFormatEnumerate(handles[i], &found[i]));
            TavixThreadDestroy(pool);
        });
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ((Sizes{{160, 120}}), found[0].Sizes());
    EXPECT_EQ((Sizes{{320, 240}, {160, 120}}), found[1].Sizes());
    EXPECT_EQ(k2vuy, found[1].seen[0].second.dwFormat);
}

TEST_F(DiscoveryTest, AStoppingEnumeratorAndBadArguments) {
    Recorder stopper;
    stopper.stopVideoAt = 0;
    DeviceScope scope(TavixDeviceGet(virtualdevices::kTestCameraName, TavixDeviceMediaTypeVideo));
    TavixDeviceFormatEnumerate(scope.handle, &stopper);
    EXPECT_EQ(1u, stopper.Sizes().size());
    EXPECT_FALSE(TavixDeviceFormatEnumerate(scope.handle, nullptr));
    EXPECT_FALSE(TavixDeviceFormatEnumerate(0, &stopper));
}

// The rates each device lists for a format and size (one it reaches by scaling included), and
// its sound formats in full. Rates stay exact fractions: 29.97 is 1001/30000.
TEST_F(DiscoveryTest, FrameRatesAndSoundFormatsOfEachDevice) {
    virtualdevices::Add(CameraSpec("NTSC Camera", {k2vuy, 720, 480, 29.97}));
    const struct Case {
        const char* name;
        unsigned long pixelFormat, width, height;
        std::vector<double> rates;               // empty: the device has no pictures
        std::vector<std::vector<double>> sounds; // rate, channels, bits, float
    } cases[] = {
        {virtualdevices::kTestCameraName, k2vuy, 640, 480, {30, 60}, {}},
        {virtualdevices::kTestCameraName, kFallback, 160, 120, {30, 60}, {}},
        {virtualdevices::kTestCameraName, 0, 0, 0, {30, 60}, {}},
        {virtualdevices::kTestDeckName, kFallback, 720, 576, {25}, {{48000, 2, 16, 0}}},
        {virtualdevices::kTestMicrophoneName, 0, 0, 0, {}, {{48000, 2, 32, 1}}},
        {"NTSC Camera", k2vuy, 720, 480, {30000 / 1001.0}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DeviceScope scope(TavixDeviceGet(c.name, TavixDeviceMediaTypeAny));
        std::vector<TavixFrameRate_C> rates;
        const bool listed = TavixDeviceFormatEnumerateFrameRates(
            scope.handle, c.pixelFormat, c.width, c.height,
            [](const TavixFrameRate_C* rate, void* list) {
                static_cast<std::vector<TavixFrameRate_C>*>(list)->push_back(*rate);
                return true;
            },
            &rates);
        EXPECT_EQ(!c.rates.empty(), listed);
        std::vector<double> fastest;
        for (const TavixFrameRate_C& rate : rates) {
            fastest.push_back(rate.framesPerSecond);
            EXPECT_EQ(rate.framesPerSecond, rate.minFramesPerSecond) << "single rates";
            EXPECT_DOUBLE_EQ(rate.framesPerSecond,
                             double(rate.dwIntervalDenominator) / rate.dwIntervalNumerator);
        }
        EXPECT_EQ(c.rates, fastest);
        std::vector<std::vector<double>> sounds;
        EXPECT_TRUE(TavixDeviceEnumerateSoundFormats(
            scope.handle,
            [](const TavixSoundFormat_C* sound, void* list) {
                static_cast<std::vector<std::vector<double>>*>(list)->push_back(
                    {sound->sampleRate, double(sound->dwChannels), double(sound->dwBitsPerChannel),
                     double(sound->dwFormatFlags & 1)});
                return true;
            },
            &sounds));
        EXPECT_EQ(c.sounds, sounds);
    }
    DeviceScope ntsc(TavixDeviceGet("NTSC Camera", TavixDeviceMediaTypeVideo));
    TavixFrameRate_C exact{};
    TavixDeviceFormatEnumerateFrameRates(
        ntsc.handle, 0, 0, 0,
        [](const TavixFrameRate_C* rate, void* out) {
            *static_cast<TavixFrameRate_C*>(out) = *rate;
            return false;
        },
        &exact);
    EXPECT_EQ(1001u, exact.dwIntervalNumerator);
    EXPECT_EQ(30000u, exact.dwIntervalDenominator);
    EXPECT_FALSE(TavixDeviceFormatEnumerateFrameRates(0, 0, 0, 0, nullptr, nullptr));
}

// A rate set before capture is the nearest offered, read back while pictures come; a new handle
// leaves the camera at its own rate.
TEST_F(DiscoveryTest, AnAskedRateIsTheNearestOfferedAndReadBack) {
    for (const auto& [asked, used] : {std::pair{60.0, 60.0}, {50.0, 60.0}, {0.0, 30.0}}) {
        DeviceScope scope(
            TavixDeviceGet(virtualdevices::kTestCameraName, TavixDeviceMediaTypeVideo));
        ASSERT_TRUE(TavixDeviceOpen(scope.handle));
        double rate = -1;
        EXPECT_FALSE(TavixDeviceGetCaptureFrameRate(scope.handle, &rate)) << "not capturing";
        EXPECT_TRUE(asked == 0 || TavixDeviceSetCaptureFrameRate(scope.handle, asked));
        CallbackLog log;
        ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(log), 0, 320, 240,
                                            nullptr, 0, 0, 0, 0, 0, nullptr));
        ASSERT_TRUE(WaitUntil([&] { return log.frames > 0; }));
        EXPECT_TRUE(TavixDeviceGetCaptureFrameRate(scope.handle, &rate));
        EXPECT_EQ(used, rate) << "asked " << asked;
        TavixDeviceStopCapture(scope.handle);
        EXPECT_FALSE(TavixDeviceGetCaptureFrameRate(scope.handle, &rate)) << "stopped";
        EXPECT_FALSE(TavixDeviceSetCaptureFrameRate(scope.handle, -1));
        EXPECT_FALSE(TavixDeviceSetCaptureFrameRate(scope.handle, std::nan("")));
    }
}

} // namespace
