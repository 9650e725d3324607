// Kernel drivers loaded and unloaded while a host listens for device changes (inside
// scripts/devvm.sh, which says where the guest's modules are; elsewhere every test skips): vivid
// cameras and snd-dummy's sound card arrive and leave, a camera keeps its unique id when its
// node is renumbered, and a camera taken away while capturing ends delivery and is reported.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "support/realdevices.h"
#include "support/tavix_helpers.h"
#include "support/vivid.h"

namespace {

// Generous: the emulated machine is slow, and the library lists devices after each event.
constexpr auto kPatience = std::chrono::seconds(90);

// Runs the guest's modprobe with `arguments`; false when it fails or there is no guest.
bool Modprobe(const std::string& arguments) {
    const char* root = getenv("TAVIX_VM_KROOT");
    const char* version = getenv("TAVIX_VM_KVER");
    if (root == nullptr || version == nullptr)
        return false;
    const std::string command =
        std::string("/usr/sbin/modprobe -d ") + root + " -S " + version + " " + arguments + " 2>&1";
    return system(command.c_str()) == 0;
}

#define REQUIRE_MODULES()                                                                          \
    if (getenv("TAVIX_VM_KROOT") == nullptr) {                                                     \
        DEVICE_MISSING() << "no guest modules to load (scripts/devvm.sh gives them)";              \
    }

// What the change callback was told.
class ChangeLog {
public:
    ChangeLog() { EXPECT_TRUE(TavixDeviceSetChangeCallBack(Record, this)); }
    ~ChangeLog() { TavixDeviceSetChangeCallBack(nullptr, nullptr); }

    // The ids told arriving (or leaving) whose id contains `part`, once there are `count`.
    std::set<std::string> Wait(const std::string& part, bool arrived, size_t count = 1) {
        std::set<std::string> ids;
        WaitUntil(
            [&] {
                std::lock_guard<std::mutex> locked(mutex);
                ids.clear();
                for (const auto& change : changes)
                    if (change.arrived == arrived && change.id.find(part) != std::string::npos)
                        ids.insert(change.id);
                return ids.size() >= count;
            },
            kPatience);
        return ids;
    }
    void Clear() {
        std::lock_guard<std::mutex> locked(mutex);
        changes.clear();
    }

private:
    struct Change {
        std::string id;
        bool arrived;
    };
    static void Record(const char*, const char* id, TavixDeviceMediaType, bool arrived,
                       void* context) {
        auto* log = static_cast<ChangeLog*>(context);
        std::lock_guard<std::mutex> locked(log->mutex);
        log->changes.push_back({id, arrived});
    }
    std::mutex mutex;
    std::vector<Change> changes;
};

std::vector<std::string> ListedIds() {
    std::vector<std::string> ids;
    TavixDeviceEnumerateWithUniqueIDs(
        [](const char*, const char* id, TavixDeviceMediaType, bool, void* context) {
            static_cast<std::vector<std::string>*>(context)->push_back(id);
            return true;
        },
        &ids, TavixDeviceMediaTypeAny, 0);
    return ids;
}

bool ListsAny(const std::set<std::string>& ids) {
    const std::vector<std::string> listed = ListedIds();
    return std::any_of(ids.begin(), ids.end(), [&](const std::string& id) {
        return std::find(listed.begin(), listed.end(), id) != listed.end();
    });
}

std::string UniqueIdOf(unsigned long handle) {
    char id[256] = "";
    TavixDeviceGetUniqueID(handle, id, sizeof id);
    return id;
}

// vivid with one instance (a capture node with four inputs, each a device) whose capture node is
// /dev/video<node>; the ids that arrived.
std::set<std::string> LoadVivid(ChangeLog& log, int node) {
    EXPECT_TRUE(Modprobe("vivid n_devs=1 vid_cap_nr=" + std::to_string(node)));
    return log.Wait("vivid", true, 4);
}

} // namespace

TEST(Hotplug, CamerasAndSoundCardsArriveAndLeaveAndCamerasKeepTheirIds) {
    REQUIRE_MODULES();
    Modprobe("-r vivid");
    Modprobe("-r snd-dummy");
    ChangeLog log;
    const std::set<std::string> first = LoadVivid(log, 3);
    ASSERT_EQ(4u, first.size());
    EXPECT_TRUE(ListsAny(first)) << "listed once told";
    DeviceScope atNode(TavixDeviceGetWithUniqueID("/dev/video3"));
    EXPECT_EQ(1u, first.count(UniqueIdOf(atNode.handle))) << "the node's camera";
    TavixDeviceRelease(atNode.handle);
    atNode.handle = 0;

    ASSERT_TRUE(Modprobe("-r vivid"));
    EXPECT_EQ(first, log.Wait("vivid", false, 4));
    EXPECT_FALSE(ListsAny(first)) << "not listed once told gone";

    // Renumbered nodes: the same ids, now at another node.
    log.Clear();
    EXPECT_EQ(first, LoadVivid(log, 7));
    EXPECT_EQ(0u, TavixDeviceGetWithUniqueID("/dev/video3"));
    DeviceScope renumbered(TavixDeviceGetWithUniqueID("/dev/video7"));
    EXPECT_EQ(1u, first.count(UniqueIdOf(renumbered.handle)));

    ASSERT_TRUE(Modprobe("snd-dummy"));
    const std::set<std::string> dummy = log.Wait("Dummy", true);
    ASSERT_FALSE(dummy.empty());
    EXPECT_TRUE(ListsAny(dummy));
    ASSERT_TRUE(Modprobe("-r snd-dummy"));
    EXPECT_EQ(dummy, log.Wait("Dummy", false, dummy.size()));
    EXPECT_FALSE(ListsAny(dummy));
}

// vivid holds its module while a node is open, so the camera is taken away with its own unplug
// control instead of by unloading; the driver is loaded afresh afterwards.
TEST(Hotplug, ACameraTakenAwayWhileCapturingEndsDeliveryAndIsReported) {
    REQUIRE_MODULES();
    Modprobe("-r vivid");
    ChangeLog log;
    const std::set<std::string> ids = LoadVivid(log, 3);
    ASSERT_FALSE(ids.empty());
    DeviceScope scope(TavixDeviceGetWithUniqueID(ids.begin()->c_str()));
    ASSERT_TRUE(TavixDeviceOpen(scope.handle));
    CallbackLog frames;
    ASSERT_TRUE(TavixDeviceStartCapture(scope.handle, LogFrame, DataOf(frames), 0, 320, 180,
                                        nullptr, 0, 0, 0, 0, 0, nullptr));
    ASSERT_TRUE(WaitUntil([&] { return frames.frames >= 3; }, kPatience));
    if (!Modprobe("-r vivid")) {
        ASSERT_TRUE(SetControl("/dev/video3", "disconnect", 1));
    }
    EXPECT_EQ(1u, log.Wait(*ids.begin(), false).size()) << "the departure is told";
    EXPECT_FALSE(TavixDeviceIsConnected(scope.handle));
    EXPECT_TRUE(TavixDeviceStopCapture(scope.handle)) << "and capture stops without hanging";
    TavixDeviceClose(scope.handle);
    TavixDeviceRelease(scope.handle);
    scope.handle = 0;
    EXPECT_TRUE(Modprobe("-r vivid"));
    EXPECT_TRUE(Modprobe("vivid n_devs=1"));
}
