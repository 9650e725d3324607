// Devices that come and go, as a host sees them through the exported functions: the change
// callback, enumeration with unique ids, look-up by unique id, and a device leaving mid-capture.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/virtualdevices.h"
#include "support/tavix_helpers.h"

namespace {

const virtualdevices::VideoMode kMode = {kCVPixelFormatType_32BGRA, 64, 48, 30};

struct Change {
    std::string name, id;
    TavixDeviceMediaType type;
    bool arrived;
};

// What the change callback was told; pass its address as the context.
struct ChangeLog {
    std::mutex mutex;
    std::vector<Change> changes;

    static void Record(const char* name, const char* id, TavixDeviceMediaType type, bool arrived,
                       void* context) {
        auto* log = static_cast<ChangeLog*>(context);
        std::lock_guard<std::mutex> locked(log->mutex);
        log->changes.push_back({name, id, type, arrived});
    }
    bool Saw(const std::string& id, bool arrived) {
        return WaitUntil([&] {
            std::lock_guard<std::mutex> locked(mutex);
            for (const Change& change : changes)
                if (change.id == id && change.arrived == arrived)
                    return true;
            return false;
        });
    }
    std::vector<Change> Copy() {
        std::lock_guard<std::mutex> locked(mutex);
        return changes;
    }
};

struct Listed {
    std::string name, id;
    TavixDeviceMediaType type;
    bool connected;
};

std::vector<Listed> ListWithIds(unsigned int flags) {
    std::vector<Listed> listed;
    TavixDeviceEnumerateWithUniqueIDs(
        [](const char* name, const char* id, TavixDeviceMediaType type, bool connected,
           void* context) {
            static_cast<std::vector<Listed>*>(context)->push_back({name, id, type, connected});
            return true;
        },
        &listed, TavixDeviceMediaTypeAny, flags);
    return listed;
}

bool IsListed(const std::string& id, unsigned int flags = 0) {
    for (const Listed& device : ListWithIds(flags))
        if (device.id == id)
            return true;
    return false;
}

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
    ASSERT_TRUE(TavixDeviceSetChangeCallBack(ChangeLog::Record, &log));
    const std::string camera = virtualdevices::Add(CameraSpec("Plugged Camera", kMode));
    const std::string microphone = virtualdevices::Add(MicrophoneSpec("Plugged Microphone"));
    ASSERT_TRUE(log.Saw(camera, true));
    ASSERT_TRUE(log.Saw(microphone, true));
    for (const Change& change : log.Copy()) {
        EXPECT_NE(std::string::npos, change.id.find("added")) << "only changes are told";
        EXPECT_EQ(change.id == camera ? TavixDeviceMediaTypeVideo : TavixDeviceMediaTypeSound,
                  change.type);
    }
    // After the arrival, enumeration lists it with its id, and the id finds the same handle as
    // the name; the handle gives the id back.
    bool sawDeck = false;
    for (const Listed& device : ListWithIds(0))
        sawDeck = sawDeck || (device.name == "Tavix Test Deck" &&
                              device.type == TavixDeviceMediaTypeMuxed && device.connected);
    EXPECT_TRUE(sawDeck);
    EXPECT_TRUE(IsListed(camera));
    const unsigned long byName = TavixDeviceGet("Plugged Camera", TavixDeviceMediaTypeVideo);
    DeviceScope scope(byName);
    EXPECT_EQ(byName, TavixDeviceGetWithUniqueID(camera.c_str()));
    TavixDeviceRelease(byName);
    char id[64];
    EXPECT_TRUE(TavixDeviceGetUniqueID(byName, id, sizeof id));
    EXPECT_EQ(camera, id);
    EXPECT_FALSE(TavixDeviceGetUniqueID(byName, id, camera.size())) << "no room for the 0";
    EXPECT_STREQ("", id);
    const unsigned long byId = TavixDeviceGetWithUniqueID(microphone.c_str());
    EXPECT_TRUE(TavixDeviceHasMediaType(byId, TavixDeviceMediaTypeSound));
    EXPECT_EQ(byId, TavixDeviceGet("plugged microphone", TavixDeviceMediaTypeSound));
    TavixDeviceRelease(byId);
    TavixDeviceRelease(byId);
    for (const char* unknown :
         {static_cast<const char*>(nullptr), "", "no-such-id", "/dev/null", "/no/such/node"})
        EXPECT_EQ(0u, TavixDeviceGetWithUniqueID(unknown)) << (unknown ? unknown : "NULL");
    EXPECT_FALSE(TavixDeviceGetUniqueID(0, id, sizeof id));
    EXPECT_FALSE(TavixDeviceGetUniqueID(byName, nullptr, 64));

    // Unplugged and removed devices are told as departures, and enumeration agrees.
    virtualdevices::SetConnected(camera, false);
    ASSERT_TRUE(log.Saw(camera, false));
    EXPECT_FALSE(IsListed(camera));
    EXPECT_TRUE(IsListed(camera, 1)) << "listed as not connected";
    virtualdevices::Remove(microphone);
    ASSERT_TRUE(log.Saw(microphone, false));
    EXPECT_FALSE(IsListed(microphone, 1));
    EXPECT_EQ(0u, TavixDeviceGetWithUniqueID(microphone.c_str()));
}

TEST_F(DeviceChangesTest, ADeviceLeavingWhileCapturingEndsDeliveryAndIsTold) {
    ChangeLog log;
    ASSERT_TRUE(TavixDeviceSetChangeCallBack(ChangeLog::Record, &log));
    const std::string camera = virtualdevices::Add(CameraSpec("Leaving Camera", kMode));
    ASSERT_TRUE(log.Saw(camera, true));
    const unsigned long handle = TavixDeviceGetWithUniqueID(camera.c_str());
    DeviceScope scope(handle);
    CallbackLog frames;
    ASSERT_TRUE(TavixDeviceOpen(handle));
    ASSERT_TRUE(TavixDeviceStartCapture(handle, LogFrame, DataOf(frames), 0, 0, 0, nullptr, 0, 0, 0,
                                        0, 0, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return frames.frames > 2; }));
    virtualdevices::Remove(camera);
    ASSERT_TRUE(log.Saw(camera, false));
    EXPECT_FALSE(TavixDeviceIsConnected(handle));
    const uint64_t delivered = virtualdevices::DeliveredSamples(camera);
    EXPECT_TRUE(TavixDeviceStopCapture(handle));
    EXPECT_EQ(delivered, virtualdevices::DeliveredSamples(camera));
}

// Clearing the callback from another thread waits for a call under way; clearing it from inside
// the callback does not wait for itself, and a callback set afterwards is told again.
TEST_F(DeviceChangesTest, ClearingWaitsForARunningCallButNotFromInsideIt) {
    struct Blocking {
        std::atomic<bool> inside{false}, clearReturned{false}, clearReturnedDuringCall{false};
    } blocking;
    ASSERT_TRUE(TavixDeviceSetChangeCallBack(
        [](const char*, const char*, TavixDeviceMediaType, bool, void* context) {
            auto* state = static_cast<Blocking*>(context);
            state->inside = true;
            // A clear that does not wait returns while this call still runs.
            WaitUntil([&] { return state->clearReturned.load(); }, std::chrono::milliseconds(500));
            state->clearReturnedDuringCall = state->clearReturned.load();
        },
        &blocking));
    virtualdevices::Add(CameraSpec("Blocking Camera", kMode));
    ASSERT_TRUE(WaitUntil([&] { return blocking.inside.load(); }));
    std::thread clearer([&] {
        TavixDeviceSetChangeCallBack(nullptr, nullptr);
        blocking.clearReturned = true;
    });
    clearer.join();
    EXPECT_FALSE(blocking.clearReturnedDuringCall);

    ChangeLog log;
    ASSERT_TRUE(TavixDeviceSetChangeCallBack(
        [](const char* name, const char* id, TavixDeviceMediaType type, bool arrived,
           void* context) {
            ChangeLog::Record(name, id, type, arrived, context);
            EXPECT_TRUE(TavixDeviceSetChangeCallBack(nullptr, nullptr));
        },
        &log));
    const std::string second = virtualdevices::Add(CameraSpec("Second Camera", kMode));
    ASSERT_TRUE(log.Saw(second, true));
    ChangeLog after;
    ASSERT_TRUE(TavixDeviceSetChangeCallBack(ChangeLog::Record, &after));
    virtualdevices::Remove(second);
    ASSERT_TRUE(after.Saw(second, false));
    EXPECT_EQ(1u, log.Copy().size()) << "no call after the callback cleared itself";
}
