// Device handles, look-up, reference counting and enumeration, through the exported functions.
#include <gtest/gtest.h>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/virtualdevices.h"
#include "support/tavix_helpers.h"
#include "tavix/tavixdevice.h"

namespace {

class RegistryTest : public ::testing::Test {
protected:
    void TearDown() override { virtualdevices::Reset(); }
};

int RefCount(unsigned long handle) {
    TavixDevice* device = TavixDevice::GetDevice(handle);
    return device != nullptr ? device->nRefCount : -100;
}

struct FormatCounter : ITavixDeviceFormatEnumerator {
    int reports = 0;
    bool OnDeviceFormatAudio(unsigned long) override { return ++reports > 0; }
    bool OnDeviceFormatVideo(unsigned long, unsigned long, unsigned long) override {
        return ++reports > 0;
    }
};

struct NameCollector : ITavixDeviceEnumerator {
    std::vector<std::string> names;
    int stopAfter = -1;
    bool OnDevice(const char* name) override {
        names.emplace_back(name);
        return stopAfter < 0 || static_cast<int>(names.size()) < stopAfter;
    }
};

virtualdevices::DeviceSpec Camera(const std::string& name) {
    return CameraSpec(name, {kCVPixelFormatType_32BGRA, 64, 48, 30});
}

} // namespace

TEST_F(RegistryTest, NamesAreLookedUpWithoutASCIICaseAndShareOneHandle) {
    EXPECT_FALSE(TavixHasUsedDevices());
    EXPECT_EQ(0u, TavixDeviceGet(nullptr, TavixDeviceMediaTypeVideo));
    EXPECT_EQ(0u, TavixDeviceGet("", TavixDeviceMediaTypeVideo));
    EXPECT_EQ(0u, TavixDeviceGet("No Such Device", TavixDeviceMediaTypeVideo));
    const unsigned long first = TavixDeviceGet("Tavix Test Camera", TavixDeviceMediaTypeVideo);
    DeviceScope scope(first);
    ASSERT_NE(0u, first);
    EXPECT_TRUE(TavixHasUsedDevices());
    const unsigned long second = TavixDeviceGet("tavix TEST camera", TavixDeviceMediaTypeVideo);
    EXPECT_EQ(first, second);
    EXPECT_EQ(2, RefCount(first));
    EXPECT_TRUE(TavixDeviceRetain(first));
    EXPECT_EQ(3, RefCount(first));
    EXPECT_TRUE(TavixDeviceRelease(first));
    EXPECT_TRUE(TavixDeviceRelease(first));
    EXPECT_TRUE(TavixDeviceRelease(first));
    EXPECT_FALSE(TavixDeviceRelease(first)) << "the handle is stale after the last release";
    EXPECT_FALSE(TavixHasUsedDevices());
    // Sound matches the deck's muxed media; video does not match the microphone.
    const unsigned long deckSound = TavixDeviceGet("Tavix Test Deck", TavixDeviceMediaTypeSound);
    DeviceScope deckScope(deckSound);
    EXPECT_NE(0u, deckSound);
    EXPECT_EQ(0u, TavixDeviceGet("Tavix Test Microphone", TavixDeviceMediaTypeVideo));
}

TEST_F(RegistryTest, InvalidHandlesGetTheirDefinedAnswers) {
    const unsigned long camera = TavixDeviceGet("Tavix Test Camera", TavixDeviceMediaTypeVideo);
    ASSERT_NE(0u, camera);
    TavixDeviceRelease(camera); // now stale
    int local = 0;
    const unsigned long handles[] = {0,
                                     1,
                                     camera,
                                     camera + 1,
                                     reinterpret_cast<unsigned long>(&local),
                                     reinterpret_cast<unsigned long>(&TavixDevices[64]),
                                     ~0ul};
    for (unsigned long handle : handles) {
        SCOPED_TRACE(handle);
        EXPECT_FALSE(TavixDeviceOpen(handle));
        EXPECT_FALSE(TavixDeviceClose(handle));
        EXPECT_FALSE(TavixDeviceRetain(handle));
        EXPECT_FALSE(TavixDeviceRelease(handle));
        EXPECT_FALSE(TavixDeviceIsOpened(handle));
        EXPECT_FALSE(TavixDeviceIsConnected(handle));
        EXPECT_FALSE(TavixDeviceIsUsedByAnotherApplication(handle));
        EXPECT_FALSE(TavixDeviceHasMediaType(handle, TavixDeviceMediaTypeVideo));
        EXPECT_FALSE(TavixDeviceIsTransportAvailable(handle));
        EXPECT_EQ(TavixDeviceTransportModeStop, TavixDeviceGetTransportMode(handle));
        TavixDeviceSetTransportMode(handle, TavixDeviceTransportModePlay);
        EXPECT_FALSE(
            TavixDeviceStartCapture(handle, LogFrame, 1, 0, 0, 0, nullptr, 0, 0, 0, 0, 0, nullptr));
        EXPECT_FALSE(TavixDeviceStopCapture(handle));
        EXPECT_FALSE(TavixDeviceStopRecording(handle));
        EXPECT_FALSE(TavixDeviceIsCapturing(handle));
        SMPTETime time;
        EXPECT_FALSE(TavixDeviceGetSMPTETime(handle, &time));
        EXPECT_FALSE(TavixDeviceInvalidateCaptureVideoCallBack(handle, LogFrame, 0));
        EXPECT_FALSE(TavixDeviceInvalidateCaptureAudioCallBack(handle, LogSound, 0));
        EXPECT_FALSE(TavixDeviceCloseAudioDevice(handle));
        FormatCounter formats;
        EXPECT_FALSE(TavixDeviceFormatEnumerate(handle, &formats));
        EXPECT_EQ(0, formats.reports);
    }
    EXPECT_TRUE(TavixDeviceCloseAllAudioDevices());
}

TEST_F(RegistryTest, SixtyFourSlotsAndNoMore) {
    std::vector<unsigned long> handles;
    for (int i = 0; i < 65; ++i)
        virtualdevices::Add(Camera("Camera " + std::to_string(i)));
    for (int i = 0; i < 64; ++i) {
        const unsigned long handle =
            TavixDeviceGet(("Camera " + std::to_string(i)).c_str(), TavixDeviceMediaTypeVideo);
        ASSERT_NE(0u, handle) << i;
        handles.push_back(handle);
    }
    EXPECT_EQ(0u, TavixDeviceGet("Camera 64", TavixDeviceMediaTypeVideo));
    // A device already in the table is still found.
    EXPECT_EQ(handles[10], TavixDeviceGet("camera 10", TavixDeviceMediaTypeVideo));
    TavixDeviceRelease(handles[10]);
    for (unsigned long handle : handles)
        EXPECT_TRUE(TavixDeviceRelease(handle));
    EXPECT_FALSE(TavixHasUsedDevices());
}

TEST_F(RegistryTest, LongNamesAreStoredTruncated) {
    const std::string name(300, 'x');
    virtualdevices::Add(Camera(name));
    const unsigned long first = TavixDeviceGet(name.c_str(), TavixDeviceMediaTypeVideo);
    ASSERT_NE(0u, first);
    EXPECT_EQ(259u, strlen(TavixDevice::GetDevice(first)->szName));
    // The stored name no longer equals the full one, so a second look-up takes another slot.
    const unsigned long second = TavixDeviceGet(name.c_str(), TavixDeviceMediaTypeVideo);
    EXPECT_NE(first, second);
    TavixDeviceRelease(first);
    TavixDeviceRelease(second);
}

TEST_F(RegistryTest, EnumerationFiltersByMediaTypeAndConnection) {
    const std::string id = virtualdevices::Add(Camera("Unplugged Camera"));
    virtualdevices::SetConnected(id, false);
    NameCollector video;
    TavixDeviceEnumerate(&video, TavixDeviceMediaTypeVideo, 0);
    EXPECT_EQ(std::vector<std::string>({"Tavix Test Camera", "Tavix Test Deck"}), video.names);
    NameCollector all;
    TavixDeviceEnumerate(&all, TavixDeviceMediaTypeVideo, 1);
    EXPECT_EQ(
        std::vector<std::string>({"Tavix Test Camera", "Tavix Test Deck", "Unplugged Camera"}),
        all.names);
    NameCollector sound;
    TavixDeviceEnumerate(&sound, TavixDeviceMediaTypeSound, 0);
    EXPECT_EQ(std::vector<std::string>({"Tavix Test Microphone", "Tavix Test Deck"}), sound.names);
    NameCollector first;
    first.stopAfter = 1;
    TavixDeviceEnumerate(&first, TavixDeviceMediaTypeAny, 1);
    EXPECT_EQ(1u, first.names.size());
    // A null enumerator or function is ignored, and enumeration goes on working afterwards.
    TavixDeviceEnumerate(nullptr, TavixDeviceMediaTypeAny, 0);
    TavixDeviceEnumerateWithCallBack(nullptr, nullptr, TavixDeviceMediaTypeAny, 0);
    NameCollector after;
    TavixDeviceEnumerate(&after, TavixDeviceMediaTypeVideo, 0);
    EXPECT_EQ(video.names, after.names);
}

TEST_F(RegistryTest, OpenStateAndDeviceState) {
    const std::string id = virtualdevices::Add(Camera("Busy Camera"));
    const unsigned long handle = TavixDeviceGet("Busy Camera", TavixDeviceMediaTypeVideo);
    DeviceScope scope(handle);
    virtualdevices::SetInUseByAnotherApplication(id, true);
    EXPECT_TRUE(TavixDeviceIsUsedByAnotherApplication(handle));
    EXPECT_FALSE(TavixDeviceOpen(handle));
    virtualdevices::SetInUseByAnotherApplication(id, false);
    EXPECT_TRUE(TavixDeviceOpen(handle));
    EXPECT_TRUE(TavixDeviceOpen(handle));
    EXPECT_TRUE(TavixDeviceIsOpened(handle));
    EXPECT_TRUE(TavixDeviceIsConnected(handle));
    EXPECT_TRUE(TavixDeviceClose(handle));
    EXPECT_FALSE(TavixDeviceIsOpened(handle));
    EXPECT_TRUE(TavixDeviceClose(handle));
}

// Hosts get, retain and release handles from several threads at once: every thread sees the one
// slot of a name, the counts come out right, and a slot nobody holds is made and freed over and
// over while the others work.
TEST_F(RegistryTest, ThreadsSharingHandlesKeepTheCountsRight) {
    const unsigned long held = TavixDeviceGet("Tavix Test Camera", TavixDeviceMediaTypeVideo);
    ASSERT_NE(0u, held);
    std::atomic<int> wrongHandles{0}, failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            const char* other = t % 2 == 0 ? "Tavix Test Microphone" : "tavix test microphone";
            for (int i = 0; i < 100; ++i) {
                const unsigned long camera =
                    TavixDeviceGet("TAVIX test camera", TavixDeviceMediaTypeVideo);
                wrongHandles += camera != held;
                const unsigned long mic = TavixDeviceGet(other, TavixDeviceMediaTypeSound);
                failures += !TavixDeviceRetain(camera) + !TavixDeviceRelease(camera);
                failures += !TavixDeviceRelease(camera) + !TavixDeviceRelease(mic);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, wrongHandles.load());
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(1, RefCount(held));
    EXPECT_TRUE(TavixDeviceRelease(held));
    EXPECT_FALSE(TavixHasUsedDevices());
}
