// Devices that come and go, as a host sees them through the exported functions: the change
// callback, enumeration with unique ids, look-up by unique id, and a device leaving mid-capture.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "platform/virtualdevices.h"
#include "support/devicechanges.h"
#include "support/tavix_helpers.h"

namespace {

const virtualdevices::VideoMode kMode = {kCVPixelFormatType_32BGRA, 64, 48, 30};

class DeviceChangesTest : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_TRUE(TavixDeviceSetChangeCallBack(nullptr, nullptr));
        virtualdevices::Reset();
    }
};

} // namespace

TEST_F(DeviceChangesTest, ArrivalsAndDeparturesAreToldAndLookUpsAgree) {
    ChangeLog log;
    const std::string camera = virtualdevices::Add(CameraSpec("Plugged Camera", kMode));
    const std::string microphone = virtualdevices::Add(MicrophoneSpec("Plugged Microphone"));
    ASSERT_EQ(2u, log.Wait("added", true, 2).size()) << "only changes are told, not the deck";
    for (const ChangeLog::Change& change : log.Changes())
        EXPECT_EQ(change.id == camera ? TavixDeviceMediaTypeVideo : TavixDeviceMediaTypeSound,
                  change.type);
    // Once told, enumeration lists it with its id and type, and the id finds the same handle as
    // the name; the handle gives the id back.
    EXPECT_TRUE(ListsAny({camera}));
    for (const ChangeLog::Change& device : ListedWithIds())
        EXPECT_EQ(device.name == "Tavix Test Deck", device.type == TavixDeviceMediaTypeMuxed);
    const unsigned long byName = TavixDeviceGet("Plugged Camera", TavixDeviceMediaTypeVideo);
    DeviceScope scope(byName);
    EXPECT_EQ(byName, TavixDeviceGetWithUniqueID(camera.c_str()));
    TavixDeviceRelease(byName);
    char id[64];
    EXPECT_TRUE(TavixDeviceGetUniqueID(byName, id, sizeof id));
    EXPECT_EQ(camera, id);
    EXPECT_FALSE(TavixDeviceGetUniqueID(byName, id, camera.size())) << "no room for the 0";
    EXPECT_STREQ("", id);
    for (const char* unknown :
         {static_cast<const char*>(nullptr), "", "no-such-id", "/dev/null", "/no/such/node"})
        EXPECT_EQ(0u, TavixDeviceGetWithUniqueID(unknown)) << (unknown ? unknown : "NULL");

    // Unplugged and removed devices are told as departures, and enumeration agrees.
    virtualdevices::SetConnected(camera, false);
    ASSERT_EQ(1u, log.Wait(camera, false).size());
    EXPECT_FALSE(ListsAny({camera}));
    EXPECT_TRUE(ListsAny({camera}, 1)) << "listed as not connected";
    virtualdevices::Remove(microphone);
    ASSERT_EQ(1u, log.Wait(microphone, false).size());
    EXPECT_FALSE(ListsAny({microphone}, 1));
    EXPECT_EQ(0u, TavixDeviceGetWithUniqueID(microphone.c_str()));
}

TEST_F(DeviceChangesTest, ADeviceLeavingWhileCapturingEndsDeliveryAndIsTold) {
    ChangeLog log;
    const std::string camera = virtualdevices::Add(CameraSpec("Leaving Camera", kMode));
    ASSERT_EQ(1u, log.Wait(camera, true).size());
    DeviceScope scope(TavixDeviceGetWithUniqueID(camera.c_str()));
    CallbackLog frames;
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(frames), 0, 0, 0, nullptr, 0,
                                        0, 0, 0, 0, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return frames.frames > 2; }));
    virtualdevices::Remove(camera);
    ASSERT_EQ(1u, log.Wait(camera, false).size());
    EXPECT_FALSE(TavixDeviceIsConnected(scope.handle));
    EXPECT_TRUE(TavixDeviceStopCapture(scope.handle));
}

// Clearing the callback from another thread waits for a call under way; clearing it from inside
// the callback does not wait for itself, and a callback set afterwards is told again.
TEST_F(DeviceChangesTest, ClearingWaitsForARunningCallButNotFromInsideIt) {
    static std::atomic<bool> inside{false}, clearReturned{false}, returnedEarly{false};
    static std::atomic<bool> finished{false};
    ASSERT_TRUE(TavixDeviceSetChangeCallBack(
        [](const char*, const char*, TavixDeviceMediaType, bool, void*) {
            inside = true;
            // A clear that does not wait returns while this call still runs.
            WaitUntil([] { return clearReturned.load(); }, std::chrono::milliseconds(500));
            returnedEarly = clearReturned.load();
            finished = true;
        },
        nullptr));
    virtualdevices::Add(CameraSpec("Blocking Camera", kMode));
    ASSERT_TRUE(WaitUntil([] { return inside.load(); }));
    std::thread([] {
        TavixDeviceSetChangeCallBack(nullptr, nullptr);
        clearReturned = true;
    }).join();
    ASSERT_TRUE(WaitUntil([] { return finished.load(); }));
    EXPECT_FALSE(returnedEarly);

    ChangeLog log;
    ASSERT_TRUE(TavixDeviceSetChangeCallBack(
        [](const char* name, const char* id, TavixDeviceMediaType type, bool arrived, void* log) {
            ChangeLog::Record(name, id, type, arrived, log);
            EXPECT_TRUE(TavixDeviceSetChangeCallBack(nullptr, nullptr));
        },
        &log));
    const std::string second = virtualdevices::Add(CameraSpec("Second Camera", kMode));
    ASSERT_EQ(1u, log.Wait(second, true).size());
    ChangeLog after;
    virtualdevices::Remove(second);
    ASSERT_EQ(1u, after.Wait(second, false).size());
    EXPECT_EQ(1u, log.Changes().size()) << "no call after the callback cleared itself";
}
